"""A first look at tarvo: variables, expressions and constraints, then small LP, MIP and QP
models built, solved and queried."""
import tarvo as tv

print(tv.getbanner())

x = tv.var(name="x", ub=4)
y = tv.var(name="y", vartype=tv.integer)

expr = 3 + 2 * x - y + x * y
print("expression:", expr)

c = x + 2 * y <= 4
print("constraint", c, "with body", c.body, "and bounds", c.lb, c.ub)

tv.setOutputEnabled(False)  # keep the solver's log out of the example's output

# --- LP: a small diet problem ------------------------------------------------------------
bread, milk, cheese = tv.var(name="bread"), tv.var(name="milk"), tv.var(name="cheese")
protein = tv.constraint(body=4 * bread + 8 * milk + 7 * cheese, lb=30, name="protein")
calcium = tv.constraint(body=1 * bread + 30 * milk + 20 * cheese, lb=60, name="calcium")
lp = tv.problem(bread, milk, cheese, protein, calcium,
                0.25 * bread + 0.6 * milk + 1.1 * cheese, "diet")
lp.solve()
print("\nLP", lp.name(), "->", lp.getProbStatusString(), "cost", round(lp.getObjVal(), 4))
for food, amount in zip(lp.getVariable(), lp.getSolution()):
    print("  %-7s %8.4f" % (food, amount))
print("  duals of protein and calcium:", [round(d, 4) for d in lp.getDual(protein, calcium)])

# --- MIP: a knapsack --------------------------------------------------------------------
values = [10, 13, 7, 8, 4, 9]
weights = [5, 6, 3, 4, 2, 5]
take = [tv.var(vartype=tv.binary, name="item%d" % i) for i in range(len(values))]
mip = tv.problem(take, sum(w * t for w, t in zip(weights, take)) <= 12,
                 sum(v * t for v, t in zip(values, take)), "knapsack", sense=tv.maximize)
mip.solve()
chosen = [str(t) for t, s in zip(take, mip.getSolution(take)) if s > 0.5]
print("\nMIP", mip.name(), "->", mip.getProbStatusString(), "value", mip.getObjVal(), "items", chosen)

# --- QP: a minimum-variance portfolio ------------------------------------------------------
cov = [[0.10, 0.02, 0.01], [0.02, 0.08, 0.03], [0.01, 0.03, 0.12]]
mu = [0.10, 0.07, 0.12]
w = [tv.var(name="w%d" % i) for i in range(3)]
risk = sum(cov[i][j] * w[i] * w[j] for i in range(3) for j in range(3))
qp = tv.problem(w, tv.constraint(body=sum(w), lb=1, ub=1, name="budget"),
                sum(m * v for m, v in zip(mu, w)) >= 0.1, risk, "portfolio")
qp.solve()
print("\nQP", qp.name(), "->", qp.getProbStatusString(), "variance", round(qp.getObjVal(), 6))
print("  weights:", [round(v, 4) for v in qp.getSolution(w)])
print("  expected return:", round(qp.getSolution(sum(m * v for m, v in zip(mu, w))), 4))
