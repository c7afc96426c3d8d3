r"""Model predictive control
========================

A cart balances a pendulum: one quadratic program, solved at each step,

.. math::

   \min_{x, u} \; \sum_{k=1}^{25} x_k^\top Q x_k + 0.1 \, u_k^2 \quad \text{s.t.} \quad
   x_{k+1} = A x_k + B u_k, \quad |x| \le \bar x, \quad |u| \le \bar u .

Rawlings, Mayne and Diehl, Model Predictive Control: Theory, Computation, and Design, 2017. The
linearized cart x(k+1) = A x(k) + B u(k) plans 25 steps ahead so that position and angle go to zero
at little force, within bounds; the first force acts, and the plan is made anew from where the cart
then is. From one step to the next only the right-hand side of the first rows changes.
"""

from importlib.util import find_spec

import numpy as np
import scipy.sparse as sp
from scipy.linalg import expm

import taviropy as tv

STEPS, HORIZON, SECONDS = 60, 25, 0.1
CART, BOB, LENGTH, GRAVITY = 1.0, 0.2, 0.5, 9.81  # kg, kg, m, m/s2

# States: position, speed, angle from upright, its rate; one input, the force on the cart.
tilt = GRAVITY * (CART + BOB) / (CART * LENGTH)
flow = np.array(
    [[0, 1, 0, 0], [0, 0, -BOB * GRAVITY / CART, 0], [0, 0, 0, 1], [0, 0, tilt, 0]], float
)
push = np.array([[0], [1 / CART], [0], [-1 / (CART * LENGTH)]])
both = expm(SECONDS * np.block([[flow, push], [np.zeros((1, 5))]]))
A, B = both[:4, :4], both[:4, 4:]

m = tv.Model("cart")
m.setOption("log", False)
limits = np.tile([2.0, np.inf, 0.35, np.inf], (HORIZON, 1))
x = m.addMVar((HORIZON, 4), lb=-limits, ub=limits, name="x")
u = m.addMVar((HORIZON, 1), lb=-6.0, ub=6.0, name="u")
states, inputs = x.reshape(-1), u.reshape(-1)
now = np.array([1.5, 0.0, 0.1, 0.0])
first = np.zeros((HORIZON, 4))
first[0] = A @ now
shifted = sp.eye_array(4 * HORIZON) - sp.kron(sp.eye_array(HORIZON, k=-1), A)
entering = sp.kron(sp.eye_array(HORIZON), B)
motion = m.addConstr(shifted @ states - entering @ inputs == first.reshape(-1), name="motion")
Q = sp.kron(sp.eye_array(HORIZON), np.diag([10.0, 1.0, 50.0, 1.0]))
m.setObjective(states @ Q @ states + 0.1 * (inputs @ inputs))

m.update()

path, forces = [now], []
for _ in range(STEPS):
    motion[:4].RHS = A @ now
    m.optimize()
    assert m.Status == "OPTIMAL", m.Status
    force = u.X[0]
    now = A @ now + B @ force
    path.append(now)
    forces.append(force[0])

path, forces = np.array(path), np.array(forces)
assert abs(path[:, 0]).max() <= 2.0 and abs(path[:, 2]).max() <= 0.35 + 1e-6
assert abs(forces).max() <= 6.0 + 1e-6 and abs(path[-1]).max() < 0.02
print(f"\nat rest after {STEPS * SECONDS:g} s, within all bounds on the way")

if find_spec("matplotlib"):
    import matplotlib.pyplot as plt

    figure, axes = plt.subplots(2, 1, figsize=(7, 5), sharex=True)
    seconds = SECONDS * np.arange(STEPS + 1)
    axes[0].plot(seconds, path[:, [0, 2]], label=["position, m", "angle, rad"])
    axes[1].step(seconds[:-1], forces, "C2", where="post", label="force, N")
    axes[0].legend()
    axes[1].legend()
    axes[1].set_xlabel("seconds")
    plt.show()
