"""The attributes of models and of their elements: the one table, and the codes that data hold."""

from __future__ import annotations

from typing import NamedTuple

CHAR, INTEGER, DOUBLE, STRING = 0, 1, 2, 3
MODEL, VARIABLE, LINEAR, QUADRATIC, GENERAL = 0, 1, 2, 4, 5

# An element's data hold the place of a character in these texts.
CHARACTERS = {"VType": "CBISN", "Sense": "<=>", "QSense": "<=>"}
CONTINUOUS, BINARY, WHOLE, SEMI, SEMI_WHOLE = range(5)
LESS, EQUAL, GREATER = range(3)


class Attribute(NamedTuple):
    """What an attribute is."""

    datatype: int
    kind: int
    settable: int


ATTRIBUTES = {
    "LB": Attribute(DOUBLE, VARIABLE, 1),
    "UB": Attribute(DOUBLE, VARIABLE, 1),
    "Obj": Attribute(DOUBLE, VARIABLE, 1),
    "VType": Attribute(CHAR, VARIABLE, 1),
    "VarName": Attribute(STRING, VARIABLE, 1),
    "Start": Attribute(DOUBLE, VARIABLE, 1),
    "X": Attribute(DOUBLE, VARIABLE, 0),
    "Pool": Attribute(DOUBLE, VARIABLE, 0),
    "ReducedCost": Attribute(DOUBLE, VARIABLE, 0),
    "Ray": Attribute(DOUBLE, VARIABLE, 0),
    "ObjRange": Attribute(DOUBLE, VARIABLE, 0),
    "LBRange": Attribute(DOUBLE, VARIABLE, 0),
    "UBRange": Attribute(DOUBLE, VARIABLE, 0),
    "RHS": Attribute(DOUBLE, LINEAR, 1),
    "Sense": Attribute(CHAR, LINEAR, 1),
    "ConstrName": Attribute(STRING, LINEAR, 1),
    "Dual": Attribute(DOUBLE, LINEAR, 0),
    "Slack": Attribute(DOUBLE, LINEAR, 0),
    "Certificate": Attribute(DOUBLE, LINEAR, 0),
    "RHSRange": Attribute(DOUBLE, LINEAR, 0),
    "QRHS": Attribute(DOUBLE, QUADRATIC, 1),
    "QSense": Attribute(CHAR, QUADRATIC, 1),
    "QName": Attribute(STRING, QUADRATIC, 1),
    "QSlack": Attribute(DOUBLE, QUADRATIC, 0),
    "QDual": Attribute(DOUBLE, QUADRATIC, 0),
    "QCertificate": Attribute(DOUBLE, QUADRATIC, 0),
    "GenName": Attribute(STRING, GENERAL, 1),
    "GenKind": Attribute(INTEGER, GENERAL, 0),
    "ModelName": Attribute(STRING, MODEL, 1),
    "ObjSense": Attribute(DOUBLE, MODEL, 1),
    "ObjOffset": Attribute(DOUBLE, MODEL, 1),
    "NumVars": Attribute(INTEGER, MODEL, 0),
    "NumConstrs": Attribute(INTEGER, MODEL, 0),
    "NumQConstrs": Attribute(INTEGER, MODEL, 0),
    "NumGenConstrs": Attribute(INTEGER, MODEL, 0),
    "NumNonzeros": Attribute(INTEGER, MODEL, 0),
    "Status": Attribute(INTEGER, MODEL, 0),
    "Engine": Attribute(STRING, MODEL, 0),
    "Objective": Attribute(DOUBLE, MODEL, 0),
    "Bound": Attribute(DOUBLE, MODEL, 0),
    "Gap": Attribute(DOUBLE, MODEL, 0),
    "Nodes": Attribute(INTEGER, MODEL, 0),
    "Iterations": Attribute(INTEGER, MODEL, 0),
    "NumSolutions": Attribute(INTEGER, MODEL, 0),
    "SolveTime": Attribute(DOUBLE, MODEL, 0),
}

# Attributes of elements that an answer holds, not the model.
OF_SOLUTION = frozenset(
    name
    for name, (_, kind, settable) in ATTRIBUTES.items()
    if kind != MODEL and not settable and name != "GenKind"
)
# Those with two values an element, on an axis in front: the least and the largest value of a datum
# with which the basis stays optimal.
RANGES = frozenset({"ObjRange", "LBRange", "UBRange", "RHSRange"})
# Those that are found out when they are first asked for; pickles are without them.
ON_DEMAND = RANGES | {"Pool", "Ray", "Certificate", "QCertificate"}
COUNTS = {
    "NumVars": VARIABLE,
    "NumConstrs": LINEAR,
    "NumQConstrs": QUADRATIC,
    "NumGenConstrs": GENERAL,
}
KIND_NAMES = {VARIABLE: "Var", LINEAR: "Constr", QUADRATIC: "QConstr", GENERAL: "GenConstr"}
