// Sparse operands of the matrix product kernels.
#include <algorithm>
#include <numeric>

#include "sparse/matrices.hpp"
#include "util.hpp"

namespace taviropy {

namespace {

bool has_format(PyObject* matrix, const char* format) {
    Ref found = field(matrix, "format");
    return PyUnicode_Check(found.get()) &&
           PyUnicode_CompareWithASCIIString(found.get(), format) == 0;
}

/// Brings the entries of each line into the order of rising indices, equal ones as they stand.
void sort_lines(CompressedMatrix& matrix) {
    for (std::size_t line = 0; line + 1 < matrix.indptr.size(); ++line) {
        Py_ssize_t begin = matrix.indptr[line], end = matrix.indptr[line + 1];
        auto first = matrix.indices.begin() + begin, last = matrix.indices.begin() + end;
        if (std::is_sorted(first, last)) continue;
        std::vector<Py_ssize_t> order(end - begin);
        std::iota(order.begin(), order.end(), begin);
        std::stable_sort(order.begin(), order.end(), [&](Py_ssize_t a, Py_ssize_t b) {
            return matrix.indices[a] < matrix.indices[b];
        });
        std::vector<Py_ssize_t> indices;
        std::vector<Ref> values;
        for (Py_ssize_t place : order) {
            indices.push_back(matrix.indices[place]);
            values.push_back(std::move(matrix.values[place]));
        }
        std::copy(indices.begin(), indices.end(), first);
        std::move(values.begin(), values.end(), matrix.values.begin() + begin);
    }
}

}  // namespace

Shape sparse_shape(PyObject* matrix) {
    Ref shape = field(matrix, "shape");
    return shape_from(shape.get());
}

Ref dense_array(PyObject*, PyObject* given) {
    return checked(PyObject_CallMethod(sparse::sound(given).get(), "toarray", nullptr));
}

CompressedMatrix read_compressed(PyObject* given, const Shape& shape, bool by_columns) {
    if (shape.size() != 2)
        raise(PyExc_ValueError,
              "matmul: a sparse array of %zd dimensions; reshape it to one row or one column",
              static_cast<Py_ssize_t>(shape.size()));
    const char* format = by_columns ? "csc" : "csr";
    Ref matrix = sparse::sound(given);
    if (!has_format(matrix.get(), format))
        matrix =
            checked(PyObject_CallMethod(matrix.get(), by_columns ? "tocsc" : "tocsr", nullptr));
    sparse::Compressed read(matrix.get(), format, sparse::Compressed::Later());
    const double* values = read.data.doubles();
    read.check(matrix.get());
    if (read.major != shape[by_columns ? 1 : 0] || read.minor != shape[by_columns ? 0 : 1])
        raise(PyExc_ValueError,
              "malformed sparse matrix: its shape %R was another one when it was looked at first",
              field(matrix.get(), "shape").get());
    CompressedMatrix compressed;
    for (Py_ssize_t line = 0; line <= read.major; ++line)
        compressed.indptr.push_back(read.indptr[line]);
    for (Py_ssize_t k = 0; k < read.nnz; ++k) {
        compressed.indices.push_back(read.indices[k]);
        compressed.values.push_back(checked(PyFloat_FromDouble(values[k])));
    }
    sort_lines(compressed);
    return compressed;
}

}  // namespace taviropy
