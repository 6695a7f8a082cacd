"""Small mixed-integer nonlinear problems with optima computed here, independently of tarvo.

Every problem is one statement written against a kit (variables, elementary functions,
constraints, objective). The tarvo kit builds a problem from it; the point kit evaluates it with
floats. The reference optimum of a problem is found by enumerating every assignment of its
integer columns (within `box` for integer columns without finite bounds, a box that provably
holds the optimum because the objective grows beyond it) and, where continuous columns remain,
solving the continuous problem of each assignment with scipy's SLSQP from several starts. Two of
the problems are the public examples ex1221 and ex1222 of Kocis and Grossmann (1988), also in
MINLPLib; their published optima (7.6672 and 1.0765) agree with the enumeration.

`convex` marks the problems whose rows and objective are convex (integers relaxed): tarvo must
solve them to the global optimum and say so; on the others it reports the best local solution it
found.
"""
import itertools
import math
import random

INF = 1e20

PROBLEMS = {}


def minlp(convex, box=None):
    def register(fn):
        fn.convex = convex
        fn.box = box or {}
        PROBLEMS[fn.__name__] = fn
        return fn
    return register


# --------------------------------------------------------------------------------------------
# Kits

class TarvoKit:
    def __init__(self, tv):
        self.tv = tv
        self.problem = tv.problem()
        self.variables = []
        self.starts = {}
        self.exp, self.log, self.sqrt, self.sin, self.cos = tv.exp, tv.log, tv.sqrt, tv.sin, tv.cos

    def var(self, lb=0.0, ub=INF, integer=False, binary=False, start=None):
        tv = self.tv
        vt = tv.binary if binary else tv.integer if integer else tv.continuous
        v = tv.var(lb=lb, ub=ub, vartype=vt, name="x%d" % len(self.variables))
        self.problem.addVariable(v)
        self.variables.append(v)
        if start is not None:
            self.starts[v] = start
        return v

    def le(self, body, rhs):
        self.problem.addConstraint(body <= rhs)

    def ge(self, body, rhs):
        self.problem.addConstraint(body >= rhs)

    def eq(self, body, rhs):
        self.problem.addConstraint(body == rhs)

    def indicator(self, b, value, body, rhs):
        """b == value forces body <= rhs."""
        self.problem.addIndicator(b == value, body <= rhs)

    def minimize(self, f):
        self.problem.setObjective(f, sense=self.tv.minimize)

    def maximize(self, f):
        self.problem.setObjective(f, sense=self.tv.maximize)


class Structure:
    """Reads a statement's columns (bounds, integrality, starts) without evaluating anything."""

    exp = log = sqrt = sin = cos = staticmethod(lambda t: 0.0)

    def __init__(self):
        self.cols = []

    def var(self, lb=0.0, ub=INF, integer=False, binary=False, start=None):
        if binary:
            lb, ub, integer = 0.0, 1.0, True
        self.cols.append((lb, ub, integer, start))
        return 1.0  # a dummy value that no statement divides by zero

    def le(self, body, rhs):
        pass

    ge = eq = le

    def indicator(self, b, value, body, rhs):
        pass

    def minimize(self, f):
        self.sense = 1

    def maximize(self, f):
        self.sense = -1


class PointKit:
    """Evaluates a statement at x: objective (in its own sense) and the rows as g(x) <= 0 or
    h(x) = 0 values."""

    exp, log, sqrt, sin, cos = (staticmethod(f) for f in (math.exp, math.log, math.sqrt, math.sin, math.cos))

    def __init__(self, x):
        self.x = list(x)
        self.k = 0
        self.ineq, self.eqs = [], []
        self.objective = None

    def var(self, lb=0.0, ub=INF, integer=False, binary=False, start=None):
        v = self.x[self.k]
        self.k += 1
        return v

    def le(self, body, rhs):
        self.ineq.append(body - rhs)

    def ge(self, body, rhs):
        self.ineq.append(rhs - body)

    def eq(self, body, rhs):
        self.eqs.append(body - rhs)

    def indicator(self, b, value, body, rhs):
        if round(b) == value:
            self.ineq.append(body - rhs)

    def minimize(self, f):
        self.objective = f

    maximize = minimize

    def violation(self, cols):
        v = max([0.0] + self.ineq + [abs(e) for e in self.eqs])
        for x, (lb, ub, integer, _) in zip(self.x, cols):
            v = max(v, lb - x, x - ub)
            if integer:
                v = max(v, abs(x - round(x)))
        return v


def sense(name):
    """1 for a minimisation, -1 for a maximisation."""
    s = Structure()
    PROBLEMS[name](s)
    return s.sense


def evaluate(fn, x):
    """(objective, largest violation) of the statement at x."""
    s = Structure()
    fn(s)
    k = PointKit(x)
    try:
        fn(k)
    except (ValueError, OverflowError, ZeroDivisionError):
        return math.inf, math.inf
    return k.objective, k.violation(s.cols)


# --------------------------------------------------------------------------------------------
# Reference optima

_REFERENCE = {}


def reference(name):
    """(optimum in the statement's sense, point) by enumeration of the integer assignments."""
    if name in _REFERENCE:
        return _REFERENCE[name]
    fn = PROBLEMS[name]
    s = Structure()
    fn(s)
    ints = [j for j, c in enumerate(s.cols) if c[2]]
    conts = [j for j, c in enumerate(s.cols) if not c[2]]
    ranges = []
    for j in ints:
        lb, ub = fn.box.get(j, s.cols[j][:2])
        ranges.append(range(int(math.ceil(lb)), int(math.floor(ub)) + 1))
    best, point = math.inf, None
    for z in itertools.product(*ranges):
        x = [0.0] * len(s.cols)
        for j, v in zip(ints, z):
            x[j] = float(v)
        if conts:
            value, y = _continuous(fn, s, x, ints, conts)
            if y is None:
                continue
            x = y
        else:
            f, viol = evaluate(fn, x)
            if viol > 1e-9:
                continue
            value = s.sense * f
        if value < best:
            best, point = value, x
    _REFERENCE[name] = (s.sense * best, point)
    return _REFERENCE[name]


def _continuous(fn, s, x, ints, conts):
    """Best of several SLSQP runs on the continuous columns with the integers fixed."""
    import numpy as np
    from scipy.optimize import minimize

    def full(y):
        z = list(x)
        for j, v in zip(conts, y):
            z[j] = float(v)
        return z

    def run(y):
        k = PointKit(full(y))
        fn(k)
        return k

    bounds = [(max(s.cols[j][0], -50.0), min(s.cols[j][1], 50.0)) for j in conts]
    cons = []
    probe = run([(a + b) / 2 for a, b in bounds])
    if probe.ineq:
        cons.append({"type": "ineq", "fun": lambda y: -np.array(run(y).ineq)})
    if probe.eqs:
        cons.append({"type": "eq", "fun": lambda y: np.array(run(y).eqs)})
    rng = random.Random(1)
    starts = [[(a + b) / 2 for a, b in bounds], [a for a, b in bounds], [b for a, b in bounds]]
    starts += [[rng.uniform(a, b) for a, b in bounds] for _ in range(5)]
    best, arg = math.inf, None
    for y0 in starts:
        try:
            r = minimize(lambda y: s.sense * run(y).objective, y0, method="SLSQP", bounds=bounds,
                         constraints=cons, options={"ftol": 1e-12, "maxiter": 200})
        except (ValueError, OverflowError, ZeroDivisionError):
            continue
        z = full(r.x)
        f, viol = evaluate(fn, z)
        if viol <= 1e-7 and s.sense * f < best:
            best, arg = s.sense * f, z
    return best, arg


# --------------------------------------------------------------------------------------------
# Convex problems

@minlp(convex=True)
def plant4(k):
    """Four plants with convex running costs exp(a o) - 1 and a fixed cost when open meet one
    demand."""
    fixed, a, demand = [5.2, 3.1, 6.4, 2.2], [0.31, 0.12, 0.45, 0.22], 11.3
    o = [k.var(ub=20) for _ in range(4)]
    b = [k.var(binary=True) for _ in range(4)]
    k.ge(sum(o), demand)
    for i in range(4):
        k.le(o[i] - 20 * b[i], 0)
    k.minimize(sum(k.exp(a[i] * o[i]) - 1 + fixed[i] * b[i] for i in range(4)))


@minlp(convex=True)
def intquartic(k):
    """Pure integer: separable squares plus a quartic coupling term."""
    x = [k.var(lb=-5, ub=5, integer=True) for _ in range(3)]
    k.minimize((x[0] - 1.4) ** 2 + (x[1] + 2.6) ** 2 + (x[2] - 0.7) ** 2 + (x[0] + x[1] + x[2] - 0.9) ** 4)


@minlp(convex=True, box={0: (-15, 15), 1: (-15, 15)})
def unbounded_ints(k):
    """Integer columns without bounds, started far from the optimum."""
    x = k.var(lb=-INF, ub=INF, integer=True, start=0)
    y = k.var(lb=-INF, ub=INF, integer=True, start=0)
    k.minimize((x - 7.6) ** 2 + (y + 5.3) ** 2 + k.exp(0.3 * (x - y) - 2))


@minlp(convex=True)
def logutility(k):
    """Concave utilities of four activities, each with an opening cost, under one budget."""
    c = [0.9, 0.5, 0.7, 1.1]
    x = [k.var(ub=4) for _ in range(4)]
    b = [k.var(binary=True) for _ in range(4)]
    for i in range(4):
        k.le(x[i] - 4 * b[i], 0)
    k.le(sum(x), 6)
    k.maximize(sum((i + 1) * 0.6 * k.log(1 + x[i]) - c[i] * b[i] for i in range(4)))


@minlp(convex=True)
def sqrtcover(k):
    """Cheapest integer pair whose concave yields cover a target."""
    x, y = k.var(ub=15, integer=True), k.var(ub=15, integer=True)
    k.ge(k.sqrt(x + 1) + k.sqrt(2 * y + 1), 5.2)
    k.minimize(3 * x + 2 * y)


@minlp(convex=True)
def expbudget(k):
    """An integer and a continuous column share a convex budget row."""
    x, y = k.var(ub=6, integer=True), k.var(ub=4)
    k.le(k.exp(0.5 * x) + y ** 2, 12)
    k.minimize(-x - 2 * y)


@minlp(convex=True)
def reciprocal(k):
    """Sum of a / x over integer sizes with a linear cost and a capacity."""
    a = [4.0, 9.0, 2.5]
    x = [k.var(lb=1, ub=10, integer=True) for _ in range(3)]
    k.le(sum(x), 12)
    k.minimize(sum(ai / xi for ai, xi in zip(a, x)) + 0.3 * sum(x))


@minlp(convex=True)
def knapsacklog(k):
    """Integer knapsack with concave (logarithmic) values, maximised."""
    w, c = [1.5, 0.7, 2.2, 1.0, 0.4], [3, 2, 4, 2.5, 1]
    x = [k.var(ub=3, integer=True) for _ in range(5)]
    k.le(sum(ci * xi for ci, xi in zip(c, x)), 9)
    k.maximize(sum(k.log(1 + wi * xi) for wi, xi in zip(w, x)))


@minlp(convex=True)
def indicator(k):
    """b = 0 forces x + y <= 1; opening b costs 4."""
    x, y, b = k.var(ub=5), k.var(ub=5), k.var(binary=True)
    k.indicator(b, 0, x + y, 1)
    k.minimize((x - 2) ** 2 + (y - 3) ** 2 + k.exp(0.2 * x) + 4 * b)


@minlp(convex=True)
def concavegain(k):
    """Maximise concave returns of two integer investments under a shared cap."""
    x, y = k.var(ub=10, integer=True), k.var(ub=10, integer=True)
    k.le(x + y, 9)
    k.maximize(2 * k.log(x + 1) + 3 * k.log(y + 1) - 0.4 * x - 0.5 * y)


# --------------------------------------------------------------------------------------------
# Nonconvex problems

@minlp(convex=False)
def ex1221(k):
    """Kocis and Grossmann (1988), MINLPLib ex1221; published optimum 7.6672."""
    x1, x2 = k.var(ub=10, start=1), k.var(ub=10, start=1)
    y1, y2, y3 = k.var(binary=True), k.var(binary=True), k.var(binary=True)
    k.eq(x1 ** 2 + y1, 1.25)
    k.eq(x2 ** 1.5 + 1.5 * y2, 3)
    k.le(x1 + y1, 1.6)
    k.le(1.333 * x2 + y2, 3)
    k.le(-y1 - y2 + y3, 0)
    k.minimize(2 * x1 + 3 * x2 + 1.5 * y1 + 2 * y2 - 0.5 * y3)


@minlp(convex=False)
def ex1222(k):
    """Kocis and Grossmann (1988), MINLPLib ex1222; published optimum 1.0765."""
    x1, x2 = k.var(lb=0.2, ub=1), k.var(lb=-2.22554, ub=-1)
    y = k.var(binary=True)
    k.le(-k.exp(x1 - 0.2) - x2, 0)
    k.le(x2 + 1.1 * y, -1)
    k.le(x1 - 1.2 * y, 0.2)
    k.minimize(-0.7 * y + 5 * (x1 - 0.5) ** 2 + 0.8)


@minlp(convex=False)
def rosenbrockint(k):
    """Rosenbrock's valley with an integer first column."""
    x, y = k.var(lb=-3, ub=3, integer=True), k.var(lb=-10, ub=10)
    k.minimize(100 * (y - x ** 2) ** 2 + (1.3 - x) ** 2)


@minlp(convex=False)
def trigint(k):
    """Pure integer with a trigonometric objective."""
    x, y = k.var(lb=-6, ub=6, integer=True), k.var(lb=-6, ub=6, integer=True)
    k.minimize(k.sin(x) + k.cos(y) + 0.05 * (x ** 2 + y ** 2))


@minlp(convex=False)
def bilinear(k):
    """A bilinear objective term between an integer and a continuous column."""
    x, y = k.var(ub=6, integer=True), k.var(ub=4)
    k.le(x + 2 * y, 9)
    k.minimize(-x * y + 0.5 * x + (y - 2) ** 2 + 0.1 * k.exp(y))


@minlp(convex=False)
def cubicint(k):
    """A cubic in one integer column, coupled with another by a linear row."""
    x, y = k.var(lb=-1, ub=5, integer=True), k.var(lb=-3, ub=3, integer=True)
    k.ge(x + y, 2)
    k.minimize(x ** 3 - 6 * x ** 2 + 9 * x + (y - 1.2) ** 2 + 0.1 * k.exp(0.5 * y))


@minlp(convex=False)
def concavemin(k):
    """Minimising a concave-dominated objective: the optimum sits at a corner."""
    x, y = k.var(ub=5, integer=True), k.var(ub=5, integer=True)
    k.le(x + y, 6)
    k.minimize(3 * x + y - (x - 2.3) ** 2 - 2 * (y - 1.1) ** 2 - k.log(1 + x + y))


@minlp(convex=False)
def cosine(k):
    """A continuous column in a cosine, pulled towards an integer one."""
    x, z = k.var(ub=6, start=0.5), k.var(ub=6, integer=True)
    k.minimize(k.cos(3 * x) + 0.1 * (x - z) ** 2 + 0.2 * z)


# --------------------------------------------------------------------------------------------
# Solving with tarvo

def build(name, tv):
    fn = PROBLEMS[name]
    kit = TarvoKit(tv)
    fn(kit)
    for v, x0 in kit.starts.items():
        kit.problem.chgvar(v, initvalue=x0)
    return kit.problem, kit.variables


def solve(name, tv, maxtime=60.0):
    """Solves with tarvo; returns a dict of status, objective, point, its own check and time."""
    import time
    p, xs = build(name, tv)
    p.controls.tslp_maxtime = maxtime
    t = time.perf_counter()
    p.solve()
    elapsed = time.perf_counter() - t
    x = p.getSolution(xs)
    f, viol = evaluate(PROBLEMS[name], x)
    return {"status": p.getProbStatusString(), "objective": p.getObjVal(), "x": x, "checked": f,
            "violation": viol, "time": elapsed}


def solved(name, result, rtol=1e-5):
    """Whether a result reached the reference optimum, at a point we checked ourselves."""
    best, _ = reference(name)
    ok_point = result["violation"] <= 1e-5
    return ok_point and abs(result["checked"] - best) <= rtol * max(1.0, abs(best))


def run_benchmark(tv, maxtime=60.0):
    """Prints one row per problem and the shares solved; returns 0."""
    print("%-15s %-6s %-22s %14s %14s %9s %8s" % ("problem", "convex", "status", "objective", "reference",
                                                  "result", "time"))
    counts = {True: [0, 0], False: [0, 0]}
    total = 0.0
    for name, fn in PROBLEMS.items():
        best, _ = reference(name)
        try:
            r = solve(name, tv, maxtime)
        except Exception as e:  # noqa: BLE001 - a failure is one row of the table
            print("%-15s %-6s failed: %s" % (name, "yes" if fn.convex else "no", e))
            counts[fn.convex][1] += 1
            continue
        ok = solved(name, r)
        # A convex problem counts only when its optimum is also reported as proven.
        if fn.convex:
            ok = ok and r["status"] == "nlp_globally_optimal"
        counts[fn.convex][0] += ok
        counts[fn.convex][1] += 1
        total += r["time"]
        print("%-15s %-6s %-22s %14.8g %14.8g %9s %7.3fs" % (name, "yes" if fn.convex else "no", r["status"],
                                                            r["checked"], best, "solved" if ok else "missed",
                                                            r["time"]))
    c, n = counts[True], counts[False]
    print("convex: %d of %d solved to the proven optimum" % (c[0], c[1]))
    print("nonconvex: %d of %d reached the optimum (%.0f%%)" % (n[0], n[1], 100.0 * n[0] / max(1, n[1])))
    print("total solve time %.2fs" % total)
    return 0
