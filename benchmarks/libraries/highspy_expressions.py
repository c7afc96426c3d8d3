"""highspy's own expression objects."""

import highspy


def w3(d):
    h = highspy.Highs()
    h.setOptionValue("output_flag", False)
    x = [h.addVariable(lb=0) for _ in range(d.n)]
    for idx, a, r in zip(d.idx.tolist(), d.a.tolist(), d.r.tolist(), strict=True):
        h.addConstr(h.qsum(c * x[i] for c, i in zip(a, idx, strict=True)) <= r)
    return h
