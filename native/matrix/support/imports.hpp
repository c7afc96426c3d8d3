// The imports that a function makes when it runs.
//
// Importing the module loads neither NumPy nor SciPy. A function that needs them begins with
// `auto np = import_numpy();` and, where it tests for or builds sparse matrices,
// `auto sp = import_sparse();`, so an absent package is an ImportError of that call.
#pragma once

#include <nanobind/nanobind.h>

namespace taviropy {

namespace nb = nanobind;

nb::object import_numpy();
nb::object import_sparse();  ///< scipy.sparse

/// np.ndarray test; `np` comes from import_numpy().
bool is_ndarray(nb::handle np, nb::handle object);
/// scipy.sparse.issparse; `sp` comes from import_sparse().
bool is_sparse(nb::handle sp, nb::handle object);

}  // namespace taviropy
