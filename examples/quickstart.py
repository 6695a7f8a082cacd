"""A first look at tarvo: variables, expressions and constraints."""
import tarvo as tv

print(tv.getbanner())

x = tv.var(name="x", ub=4)
y = tv.var(name="y", vartype=tv.integer)

expr = 3 + 2 * x - y + x * y
print("expression:", expr)

c = x + 2 * y <= 4
print("constraint", c, "with body", c.body, "and bounds", c.lb, c.ub)
