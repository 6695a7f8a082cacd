"""Every error of the modelling and nonlinear layers reaches Python with its exact message and
exception type: (label, operation, exception, message) rows, grouped by the object that raises."""
import numpy as np
import pytest

import tarvo as t

ME, IE = t.ModelError, t.InterfaceError
x, y = t.var(), t.var()


def const3():
    """A constant expression (no linear or quadratic part) with value 3."""
    return t.Sum(1, 2)


class ShortSet(set):
    """A set that yields fewer elements than its size says."""

    def __iter__(self):
        return iter([1])


class NoText:
    """An index element without a string form."""

    def __str__(self):
        raise ValueError("no text")

    def __hash__(self):
        return 1


CASES = [
 ("x & 'a'", lambda: x & 'a', ME, "Invalid object in operation: <a>"),
 ("x ** 'a'", lambda: x ** 'a', ME, "Invalid object in operation: <a>"),
 ("abs([x])", lambda: t.abs([x]), ME, "Could not create a unary nonlinear expression: the argument must be a single expression"),
 ("xy * 'a'", lambda: (x*y) * 'a', ME, "Invalid object in operation: <a>"),
 ("xy / 'a'", lambda: (x*y) / 'a', ME, "Invalid object in operation: <a>"),
 ("c3 * 'a'", lambda: const3() * 'a', ME, "Error multiplying expressions"),
 ("e / 'a'", lambda: (x+y) / 'a', ME, "Invalid object in operation: <a>"),
 ("e ** 'a'", lambda: (x+y) ** 'a', ME, "Invalid object in operation: <a>"),
 ("e += 'a'", lambda: (x+y).__iadd__('a'), ME, "Invalid object in operation: <a>"),
 ("n + 'a'", lambda: t.sin(x) + 'a', ME, "Invalid object in operation: <a>"),
 ("min('a')", lambda: t.min('a'), ME, "Incorrect argument for tarvo.min function"),
 ("And('a')", lambda: t.And('a'), ME, "Incorrect argument for tarvo.And function"),
 ("Or('a')", lambda: t.Or('a'), ME, "Incorrect argument for tarvo.Or function"),
 ("pwl list", lambda: t.pwl([1]), ME, "Function tarvo.pwl only accepts a dictionary; a call must be for example tarvo.pwl({(1,4): 2*x+1, (4,6): 4*x+5, ...})"),
 ("pwl None:1", lambda: t.pwl({None: 1}), ME, "Tuple (None, Obj) must have an tarvo.var() object as Obj, found <1>"),
 ("pwl key", lambda: t.pwl({1: x}), ME, "All keys in the dictionary argument of tarvo.pwl must be two-tuples; <1> is not"),
 ("pwl key2", lambda: t.pwl({(2, 1): x}), ME, "All keys in the dictionary argument of tarvo.pwl must be two-tuples with two constant numbers: [a,b] such that a<b; <(2, 1)> is not"),
 ("pwl 2vars", lambda: t.pwl({(0, 1): x + y}), ME, "Expression   %s + %s not suitable for a piecewise linear function; it must contain one variable only" % (x, y)),
 ("pwl nonlin", lambda: t.pwl({(0, 1): x * y}), ME, "Expression %s*%s not suitable for a piecewise linear function; it must be a constant or a linear function" % (x, y)),
 ("pwl othervar", lambda: t.pwl({(0, 1): x, (1, 2): y}), ME, "Expression in [1.0,2.0] interval contains variable %s while another variable has been used in the same function" % y),
 ("pwl novar", lambda: t.pwl({(1, 2): 4, (2, 4): 2}), ME, "No variable specified for this piecewise linear function: {(1, 2): 4, (2, 4): 2}; Are all values constant? If so, add a key-value pair (None: x) to the dictionary with the variable associated to the piecewise linear"),
 ("pwl overlap", lambda: t.pwl({(0, 2): x, (1, 3): x}), ME, "Interval [0.0,2.0] overlaps with [1.0,3.0] in piecewise linear function"),
 ("Sum complex", lambda: t.Sum(np.ones(2, dtype=complex)), ME, "Incorrect objects used in Sum, Dot, Prod, or aggregate functions"),
 ("Dot list", lambda: t.Dot([x], [1.0]), ME, "Dot product should only be on NumPy arrays"),
 ("Dot arr,list", lambda: t.Dot(np.array([1.0]), [1.0]), ME, "Dot product can only occur between NumPy arrays"),
 ("Dot size", lambda: t.Dot(np.ones(2), np.ones(3)), ME, "Dot product must occur between NumPy vectors with matching sizes in the multiplying dimension"),
 ("Dot scalar1", lambda: t.Dot(np.array(1.0), np.ones(3)), ME, "Dot product between incompatible objects: first one is a scalar"),
 ("Dot scalar2", lambda: t.Dot(np.ones(3), np.array(1.0)), ME, "Dot product between incompatible objects: second one is a scalar"),
 ("Dot str", lambda: t.Dot(np.array(['a']), np.array(['b'])), ME, "Dot product must be between long, double, and expressions/variables"),
 ("Dot out", lambda: t.Dot(t.vars(2), np.ones(2), out=np.zeros(1)), ME, "Output argument set with wrong type: must be float/int for products of floats/ints and expression/nonlin for products of variables/expressions/nonlinear"),
 ("vars lb>ub", lambda: t.vars(2, lb=5, ub=1), ME, "Variables have empty feasible set: lower bound > upper bound"),
 ("vars gen", lambda: t.vars((i for i in range(2))), ME, "Invalid index: a call to tarvo.vars() must have a tuple of lists, sets, iterable objects, or integer numbers as its arguments"),
 ("vars 0", lambda: t.vars(0), ME, "Invalid index: integer argument to tarvo.vars() must be positive (it is equivalent to range(k))"),
 ("vars empty", lambda: t.vars([]), ME, "Invalid index: empty dimension in creation of variables"),
 ("vars dup", lambda: t.vars(['a', 'b', 'a']), ME, "Duplicate entry in vars: <a>. Check arguments for duplicate entries in one or more of the lists"),
 ("eval none", lambda: t.evaluate(x), IE, 'tarvo.evaluate() requires at least of the two arguments "solution" and "problem".\nSee the documentation of tarvo.evaluate for details.'),
 ("eval list", lambda: t.evaluate(x, solution=[1]), IE, 'Argument "problem" is necessary when passing a list or NumPy array of variable values'),
 ("eval badsol", lambda: t.evaluate(x, solution=3), IE, 'Argument "solution" must be a dictionary, a list, or a one-dimensional NumPy array.\nSee the documentation for tarvo.evaluate'),
 ("eval badprob", lambda: t.evaluate(x, problem=3), IE, 'Argument "problem" must be an tarvo.problem object'),
 ("eval f64 arr", lambda: t.evaluate(np.ones(2), solution={}), IE, "tarvo.evaluate() requires one or more Python objects;\nNumPy arrays must be of dtype tarvo.npvar, tarvo.npexpr, or tarvo.npconstraint."),
 ("eval con arr", lambda: t.evaluate(t.vars(2) <= 1, solution={}), IE, "tarvo.evaluate() requires one or more Python objects;\nNumPy arrays must be of dtype tarvo.npvar, tarvo.npexpr, or tarvo.npconstraint."),
 ("eval div0", lambda: t.evaluate(x / y, solution={x: 1, y: 0}), ZeroDivisionError, "Division by zero in evaluation of expression containing fraction"),
 ("eval missing", lambda: t.evaluate(x, solution={}), ME, "Object does not belong to problem or cannot be identified within expression"),
 ("pwl jump first", lambda: t.evaluate(t.pwl({(1, 1): x}), solution={x: 0}), IE, "Piecewise linear function has discontinuity at first breakpoint %s = 1.0 and can't be evaluated at 0.0" % x),
 ("vars short set", lambda: t.vars(ShortSet({1, 2})), ME, "No object available from set"),
 ("vars no text", lambda: t.vars([NoText()]), ME, "Element of index tuple in vars() cannot be represented"),
]


@pytest.mark.parametrize("operation, exception, message", [c[1:] for c in CASES], ids=[c[0] for c in CASES])
def test_error_message(operation, exception, message):
    with pytest.raises(exception) as info:
        operation()
    assert type(info.value) is exception
    assert str(info.value) == message
