r"""The shortest tour
=================

The shortest tour through the capitals of the mainland United States, by rows that are added lazily:

.. math::

   \min_{x \in \{0,1\}^E} \; c^\top x \quad \text{s.t.} \quad \sum_{e \ni v} x_e = 2, \quad
   \sum_{e \in \delta(S)} x_e \ge 2 .

Dantzig, Fulkerson and Johnson, Solution of a large-scale traveling-salesman problem, Operations
Research 2, 1954: two edges at each city, and where that leaves several tours apart, a row for each
that asks for edges out of it. Rows are added as points break them, in the middle of one solve.
Distances are those of the great circle.
"""

from importlib.util import find_spec

import numpy as np
from scipy.sparse import coo_array
from scipy.sparse.csgraph import connected_components

import taviropy as tv

CITIES = """
Montgomery 32.38 -86.30; Phoenix 33.45 -112.10; Little Rock 34.75 -92.29; Sacramento 38.58 -121.49;
Denver 39.74 -104.98; Hartford 41.76 -72.68; Tallahassee 30.44 -84.28; Atlanta 33.75 -84.39;
Boise 43.62 -116.20; Springfield 39.80 -89.65; Indianapolis 39.77 -86.16; Des Moines 41.59 -93.60;
Topeka 39.05 -95.68; Baton Rouge 30.46 -91.19; Augusta 44.31 -69.78; Boston 42.36 -71.06;
Lansing 42.73 -84.56; Saint Paul 44.96 -93.09; Jackson 32.30 -90.18; Helena 46.59 -112.04;
Lincoln 40.81 -96.70; Carson City 39.16 -119.77; Santa Fe 35.69 -105.94; Albany 42.65 -73.76;
Raleigh 35.78 -78.64; Bismarck 46.81 -100.78; Columbus 39.96 -83.00; Salem 44.94 -123.04
"""
names, latitudes, longitudes = zip(
    *(city.strip().rsplit(" ", 2) for city in CITIES.split(";")), strict=True
)
phi, theta = np.radians(np.array([latitudes, longitudes], float))
places = np.stack([np.cos(phi) * np.cos(theta), np.cos(phi) * np.sin(theta), np.sin(phi)])
distances = 6371 * np.arccos(np.clip(places.T @ places, -1, 1))

n = len(names)
first, second = np.triu_indices(n, 1)
m = tv.Model("tour")
m.setOption("log", False)
edge = m.addMVar(len(first), vtype="B", obj=distances[first, second], name="edge")
at_city = coo_array(
    (np.ones(2 * len(first)), (np.append(first, second), np.tile(np.arange(len(first)), 2)))
).tocsr()
m.addConstr(at_city @ edge == 2, name="two")
rounds = []


def part_of_city(chosen):
    graph = coo_array((np.ones(chosen.sum()), (first[chosen], second[chosen])), shape=(n, n))
    return connected_components(graph, directed=False)


def one_tour(p):
    """For each of several tours: at least two edges leave it."""
    count, part = part_of_city(p.value(edge) > 0.5)
    rounds.append(count)
    leaves = [(part[first] == k) != (part[second] == k) for k in range(count)]
    return [edge[across].sum() >= 2 for across in leaves] if count > 1 else None


m.optimize(lazy=one_tour)
chosen = edge.X > 0.5
print(
    f"{n} cities, {m.Objective:.0f} km; {len(rounds)} points looked at, up to {max(rounds)} tours"
)
assert m.Status == "OPTIMAL" and part_of_city(chosen)[0] == 1 and chosen.sum() == n

if find_spec("matplotlib"):
    import matplotlib.pyplot as plt

    figure, axis = plt.subplots(figsize=(9, 5), layout="constrained")
    x, y = np.degrees(theta), np.degrees(phi)
    for i, j in zip(first[chosen], second[chosen], strict=True):
        axis.plot(x[[i, j]], y[[i, j]], "tab:blue")
    axis.plot(x, y, "o", color="tab:red", markersize=4)
    for name, *place in zip(names, x, y, strict=True):
        axis.annotate(name, place, xytext=(3, 3), textcoords="offset points", fontsize=7)
    axis.set_aspect(1.25)
    plt.show()
