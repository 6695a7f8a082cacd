"""Nonlinear models: a classic constrained problem and a Python function inside a model."""
import math

import tarvo as tv

tv.setOutputEnabled(False)

# Hock and Schittkowski's problem 71: optimum 17.0140173 at (1, 4.743, 3.8211, 1.3794).
x1, x2, x3, x4 = x = [tv.var(lb=1, ub=5, name="x%d" % i) for i in range(1, 5)]
p = tv.problem(x, x1 * x2 * x3 * x4 >= 25, x1**2 + x2**2 + x3**2 + x4**2 == 40,
               x1 * x4 * (x1 + x2 + x3) + x3, "hs071")
p.solve()
print("hs071:", p.getProbStatusString(), round(p.getObjVal(), 6),
      [round(v, 4) for v in p.getSolution(x)])


# A Python function as part of a model: tarvo differentiates it numerically.
def smooth_abs(a):
    return math.sqrt(a * a + 1e-4)


y = tv.var(lb=-10, ub=10, name="y")
q = tv.problem(y, tv.user(smooth_abs, y - 3) + 0.1 * (y - 1) ** 2, "user")
q.solve()
print("user function:", q.getProbStatusString(), "y = %.4f" % q.getSolution(y))
