"""Capacitated facility location with arrays of variables.

Open some of M facilities (fixed cost each, limited capacity) and assign N customers' demand
to open facilities at the least total cost.
"""
import numpy as np

import tarvo as tv

rng = np.random.default_rng(7)
M, N = 5, 20
fixed = rng.uniform(80, 120, M)
capacity = rng.uniform(30, 60, M)
demand = rng.uniform(3, 8, N)
cost = rng.uniform(1, 10, (M, N)) * demand          # cost of serving all of j's demand from i

open_ = tv.vars(M, vartype=tv.binary, name="open")
serve = tv.vars(M, N, ub=1, name="serve")            # share of customer j served by facility i

p = tv.problem("facility")
p.addVariable(open_, serve)
p.addConstraint(tv.Sum(serve[:, j]) == 1 for j in range(N))
p.addConstraint(tv.Dot(serve[i], demand) <= capacity[i] * open_[i] for i in range(M))
p.addConstraint(serve[i, j] <= open_[i] for i in range(M) for j in range(N))
p.setObjective(tv.Dot(fixed, open_) + tv.Sum(tv.Dot(cost[i], serve[i]) for i in range(M)))

tv.setOutputEnabled(False)
p.solve()
print(p.getProbStatusString(), "total cost %.2f" % p.getObjVal())
opened = p.getSolution(open_)
for i in range(M):
    if opened[i] > 0.5:
        load = float(np.dot(p.getSolution(serve[i]), demand))
        print("facility %d open: load %.1f of %.1f" % (i, load, capacity[i]))
