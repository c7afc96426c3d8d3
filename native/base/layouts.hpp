// The instance layouts of the scalar expressions: the one place where they are written.
//
// The matrix module reads and writes these fields directly, and refuses to load where the types it
// finds are laid out otherwise. The scalar core defines its types on the same structs.
#pragma once

#include <Python.h>

namespace taviropy::base {

/// A scalar linear expression: constant + sum of coeffs[k] * vars[k].
struct LinExprObject {
    PyObject_HEAD double constant;
    PyObject* coeffs;    ///< list of float
    PyObject* vars;      ///< list of Var, as long as coeffs
    PyObject* cont_ref;  ///< None, or further content that `_flatten` folds into the lists
};

/// A scalar quadratic expression: linear + sum of coeffs[k] * vars1[k] * vars2[k].
struct QuadExprObject {
    PyObject_HEAD PyObject* linear;  ///< LinExpr
    PyObject* coeffs;                ///< list of float
    PyObject* vars1;                 ///< list of Var
    PyObject* vars2;                 ///< list of Var
    PyObject* cont_ref;              ///< as in LinExprObject; not used by the matrix module
};

}  // namespace taviropy::base
