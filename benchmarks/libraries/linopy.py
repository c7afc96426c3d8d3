"""linopy, to a loaded HiGHS."""

import linopy
import numpy as np
import pandas as pd
import xarray as xr


def _loaded(m):
    return linopy.io.to_highspy(m)


def w1(d):
    m = linopy.Model()
    x = m.add_variables(lower=0, coords=[pd.RangeIndex(d.n, name="i")], name="x")
    m.add_objective((x * d.c).sum())
    # Rows of equal length: the entries as an array of (row, entry).
    columns = xr.DataArray(d.A.indices.reshape(d.n, -1), dims=("row", "entry"))
    values = xr.DataArray(d.A.data.reshape(d.n, -1), dims=("row", "entry"))
    row = (x.isel(i=columns) * values).sum("entry")
    m.add_constraints(row <= xr.DataArray(d.r - d.b, dims="row"))
    return _loaded(m)


def w2(d):
    m = linopy.Model()
    x = m.add_variables(lower=0, coords=[pd.RangeIndex(d.n, name="i")], name="x")
    m.add_objective((x * d.c).sum())
    A = xr.DataArray(d.A, dims=("row", "i"), coords={"i": np.arange(d.n)})
    m.add_constraints((x * A).sum("i") <= xr.DataArray(d.r - d.b, dims="row"))
    return _loaded(m)


def w4(d):
    m = linopy.Model()
    coords = [pd.RangeIndex(d.k, name="l"), pd.RangeIndex(d.k, name="j")]
    X = m.add_variables(lower=0, coords=coords, name="X")
    columns = xr.DataArray(d.A.indices.reshape(d.k, -1), dims=("row", "entry"))
    values = xr.DataArray(d.A.data.reshape(d.k, -1), dims=("row", "entry"))
    B = xr.DataArray(d.B, dims=("row", "j"), coords={"j": np.arange(d.k)})
    m.add_constraints((X.isel(l=columns) * values).sum("entry") <= B)
    m.add_constraints(X.sum("l") == 1)
    m.add_constraints(X.sum("j") <= xr.DataArray(d.s, dims="l", coords={"l": np.arange(d.k)}))
    m.add_objective(0 * X.sum())
    return _loaded(m)
