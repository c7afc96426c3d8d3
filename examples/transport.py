r"""Transport on a network
======================

Goods flow from harbours to towns over roads with costs and capacities, at least cost:

.. math::

   \min_{x} \; c^\top x \quad \text{s.t.} \quad N x = d, \quad 0 \le x \le u,

where :math:`N` is the incidence matrix of the network, +1 where an arc enters a node and -1 where
it leaves it, and :math:`d` the demand of each node, negative at harbours. The dual value of a
node's row is the price of the goods there. Ford and Fulkerson, Flows in Networks, 1962.
"""

from importlib.util import find_spec

import numpy as np
import scipy.sparse as sp
from scipy.spatial import Delaunay

import taviropy as tv

rng = np.random.default_rng(4)
nodes = 40
place = rng.random((nodes, 2))

# Roads along the edges of a triangulation, an arc in each direction.
corners = Delaunay(place).simplices
edges = np.unique(
    np.sort(np.vstack([corners[:, [0, 1]], corners[:, [1, 2]], corners[:, [0, 2]]]), 1), axis=0
)
tail, head = np.vstack([edges, edges[:, ::-1]]).T
arcs = len(tail)
length = np.linalg.norm(place[tail] - place[head], axis=1)
capacity = rng.uniform(20.0, 60.0, arcs)

demand = rng.uniform(2.0, 8.0, nodes)
harbours = np.array([0, 1, 2])
demand[harbours] -= demand.sum() / len(harbours)

columns = np.arange(arcs)
N = sp.csr_array((np.ones(arcs), (head, columns)), shape=(nodes, arcs)) - sp.csr_array(
    (np.ones(arcs), (tail, columns)), shape=(nodes, arcs)
)

m = tv.Model("transport")
m.setOption("log", False)
x = m.addMVar(arcs, ub=capacity, obj=length, name="flow")
balance = m.addConstr(N @ x == demand, name="balance")
m.optimize()
flow, price = x.X, balance.Dual

print(f"{m.Status}: cost {m.Objective:.2f}, {np.sum(flow > 1e-6)} of {arcs} arcs are used")
print(
    f"goods cost {price.max() - price.min():.3f} more where they are dearest than where they land"
)

# All is delivered; and an arc that is neither empty nor full costs what prices differ by.
assert m.Status == "OPTIMAL" and m.check()
partly = (flow > 1e-6) & (flow < capacity - 1e-6)
assert np.allclose((price[head] - price[tail])[partly], length[partly], atol=1e-6)

if find_spec("matplotlib"):
    import matplotlib.pyplot as plt

    figure, axis = plt.subplots(figsize=(6, 6))
    axis.plot(*place[edges].transpose(2, 1, 0), color="0.9", zorder=0)
    for k in np.flatnonzero(flow > 1e-6):
        ends = {"xytext": place[tail[k]], "xy": place[head[k]]}
        axis.annotate(
            "", **ends, arrowprops={"arrowstyle": "->", "lw": 0.4 + flow[k] / 12, "color": "C0"}
        )
    dots = axis.scatter(*place.T, c=price - price.min(), s=50, cmap="viridis", zorder=3)
    axis.plot(*place[harbours].T, "s", color="C3", markersize=12, zorder=2, label="harbour")
    figure.colorbar(dots, label="price of the goods", shrink=0.7)
    axis.set_title("Flows, and prices at the nodes")
    axis.set_axis_off()
    axis.legend()
    plt.show()
