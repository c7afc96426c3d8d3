// What the files of the utilities share.
#pragma once

#include <vector>

#include "base/arrays.hpp"

namespace taviropy {

using namespace base;

using Shape = std::vector<Py_ssize_t>;

/// A shape from an int or a sequence of ints; ValueError for a negative extent.
Shape shape_from(PyObject* object);
Ref shape_tuple(const Shape& shape);
/// The shape of a matrix product of one- and two-dimensional operands; false where they don't fit.
bool product_shape(const Shape& left, const Shape& right, Shape& result);
[[noreturn]] void refuse_product(const Shape& left, const Shape& right);

/// A matrix in compressed rows or columns, checked and ready to be walked.
struct CompressedMatrix {
    std::vector<Py_ssize_t> indptr;
    std::vector<Py_ssize_t> indices;  ///< rising within each line
    std::vector<Ref> values;          ///< Python floats
};
/// Reads a SciPy sparse matrix or array, of the shape that was read of it before, by columns or by
/// rows; ValueError where it is malformed.
CompressedMatrix read_compressed(PyObject* matrix, const Shape& shape, bool by_columns);
Shape sparse_shape(PyObject* matrix);
/// matrix.toarray(), checked first; a function of the module.
Ref dense_array(PyObject*, PyObject* matrix);

extern PyMethodDef shape_methods[];
extern PyMethodDef kernel_methods[];

}  // namespace taviropy
