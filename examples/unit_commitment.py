r"""Unit commitment
===============

Which of six power stations run in which of 24 hours, with binary :math:`u` (on), :math:`v` (starts)
and power :math:`p`:

.. math::

   \min \; \sum_{tg} a_g u_{tg} + s_g v_{tg} + c_g p_{tg} \quad \text{s.t.} \quad
   \sum_g p_{tg} = d_t, \quad \underline p_g u_{tg} \le p_{tg} \le \bar p_g u_{tg}, \quad \ldots

Carrion and Arroyo, A computationally efficient mixed-integer linear formulation for the thermal
unit commitment problem, IEEE Transactions on Power Systems 21, 2006, in a short form.
"""

from importlib.util import find_spec

import numpy as np

import taviropy as tv

names = ["nuclear", "coal 1", "coal 2", "gas 1", "gas 2", "peak"]
least, most = np.array([250, 120, 120, 50, 50, 10.0]), np.array([500, 350, 300, 200, 180, 120.0])
ramp = np.array([60, 90, 90, 120, 120, 120.0])  # MW an hour
price = np.array([9, 24, 27, 46, 51, 95.0])  # a MWh
running = np.array([900, 700, 650, 300, 280, 100.0])  # an hour
start_cost = np.array([40_000, 9_000, 8_500, 1_500, 1_400, 200.0])
stays = np.array([24, 8, 8, 3, 3, 1])  # hours on, once started, and off, once stopped
hours = np.arange(24)
demand = 760 + 260 * np.sin((hours - 8) / 24 * 2 * np.pi) + 180 * np.exp(-((hours - 19) ** 2) / 6)
T, N = len(hours), len(names)

m = tv.Model("commitment")
m.setOption("log", False)
on = m.addMVar((T, N), vtype="B", obj=running, name="on")
starts = m.addMVar((T, N), vtype="B", obj=start_cost, name="starts")
stops = m.addMVar((T, N), vtype="B", name="stops")
power = m.addMVar((T, N), obj=price, name="power")
m.addConstr(power.sum(axis=1) == demand, name="demand")
m.addConstr((on * most).sum(axis=1) >= 1.1 * demand, name="reserve")
m.addConstr(power >= on * least, name="least")
m.addConstr(power <= on * most, name="most")
# The day comes again: hour 0 follows hour 23.
before = np.roll(hours, 1)
m.addConstr(on - on[before] == starts - stops, name="switch")
m.addConstr(power - power[before] <= ramp * on[before] + most * starts, name="up")
m.addConstr(power[before] - power <= ramp * on + most * stops, name="down")
for k, hours_kept in enumerate(stays):
    window = (hours[:, None] - np.arange(hours_kept)) % T
    m.addConstr(starts[window, k].sum(axis=1) <= on[:, k], name=f"kept on {k}")
    m.addConstr(stops[window, k].sum(axis=1) <= 1 - on[:, k], name=f"kept off {k}")
m.setOption("gap", 1e-3)
m.optimize()

print(f"{m.Status}: {m.Objective:,.0f} a day, at most {m.Gap:.2%} above the least")
for k, name in enumerate(names):
    print(f"{name:>8} " + "".join("#" if s > 0.5 else "." for s in on.X[:, k]))

assert m.Status == "OPTIMAL" and m.check()
P, S = power.X, on.X.round()
assert np.allclose(P.sum(axis=1), demand) and np.all(S * most + 1e-5 >= P)
assert np.all(S @ most >= 1.1 * demand - 1e-5)

if find_spec("matplotlib"):
    import matplotlib.pyplot as plt

    figure, axis = plt.subplots(figsize=(8, 4.5), layout="constrained")
    axis.stackplot(hours, P.T, labels=names, step="mid")
    axis.step(hours, demand, "k--", where="mid", label="demand")
    axis.set_xlabel("hour")
    axis.set_ylabel("MW")
    axis.legend(loc="upper left", ncols=4, fontsize=8)
    plt.show()
