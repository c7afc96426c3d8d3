"""Types of the shape rules and of the matrix product kernels."""

from collections.abc import Callable
from typing import Any, Literal, overload

import numpy as np
from numpy.typing import NDArray

type _Shape = int | tuple[int, ...]
type _Multiply = Callable[[Any, Any], Any]
type _Sum = Callable[[list[Any]], Any]

__pyx_capi__: dict[str, Any]

def _isscalar(value: object, /) -> bool: ...
def _isstr(value: object, /) -> bool: ...
def _broadcast_shapes(*shapes: _Shape) -> tuple[int, ...]: ...
@overload
def _matmul_shape(
    shape_left: _Shape, shape_right: _Shape, do_raise: Literal[True] = True
) -> tuple[int, ...]: ...
@overload
def _matmul_shape(
    shape_left: _Shape, shape_right: _Shape, do_raise: bool
) -> tuple[int, ...] | None: ...
def _axis_to_axeslist(
    axis: int | tuple[int, ...] | list[int] | None, ndim: int, /
) -> list[int]: ...
def _all_refs_match(
    arr1: NDArray[np.object_] | None, arr2: NDArray[np.object_] | None, /
) -> bool: ...
def _dense_matmul_kernel(
    left_arr: NDArray[Any], right_arr: NDArray[Any], f_multiply: _Multiply, f_sum: _Sum
) -> NDArray[np.object_]: ...
def _dense_array(matrix: Any, /) -> NDArray[Any]: ...
def _sparse_right_matmul_kernel(
    left_arr: NDArray[Any], right: Any, f_multiply: _Multiply, f_sum: _Sum
) -> NDArray[np.object_]: ...
def _sparse_left_matmul_kernel(
    left: Any, right_arr: NDArray[Any], f_multiply: _Multiply, f_sum: _Sum
) -> NDArray[np.object_]: ...
