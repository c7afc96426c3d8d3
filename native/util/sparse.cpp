// Reading SciPy's sparse matrices. Their index arrays are open to anyone, so they are checked
// before they are walked, and before SciPy walks them to convert a format.
#include <algorithm>
#include <numeric>

#include "util.hpp"

namespace taviropy {

namespace {

Ref field(PyObject* matrix, const char* name) {
    return checked(PyObject_GetAttrString(matrix, name));
}

template <class Integer>
void append_all(const Buffer& buffer, std::vector<Py_ssize_t>& out) {
    Walker walker(buffer);
    for (Py_ssize_t k = buffer.size(); k > 0; --k)
        out.push_back(static_cast<Py_ssize_t>(*reinterpret_cast<const Integer*>(walker.next())));
}

/// A field of a matrix that is to be an array of one axis, or three.
Ref array_field(PyObject* matrix, const char* name, Py_ssize_t axes) {
    Ref array = field(matrix, name);
    Ref ndim(PyObject_GetAttrString(array.get(), "ndim"));
    if (!ndim) PyErr_Clear();
    if (!ndim || PyLong_AsSsize_t(ndim.get()) != axes)
        raise(PyExc_ValueError, "malformed sparse matrix: %s is no array with %zd axes", name,
              axes);
    return array;
}

std::vector<Py_ssize_t> index_array(PyObject* matrix, const char* name) {
    Ref array = array_field(matrix, name, 1);
    Buffer buffer(array.get(), PyBUF_RECORDS_RO);
    std::vector<Py_ssize_t> out;
    out.reserve(buffer.size());
    if (buffer->ndim == 1 && buffer.holds('i'))
        append_all<int32_t>(buffer, out);
    else if (buffer->ndim == 1 && (buffer.holds('l') || buffer.holds('q')))
        append_all<int64_t>(buffer, out);
    else
        raise(PyExc_ValueError,
              "malformed sparse matrix: %s must be a one-dimensional array of int32 or int64",
              name);
    return out;
}

void check_range(const std::vector<Py_ssize_t>& indices, Py_ssize_t end, const char* name) {
    for (Py_ssize_t index : indices)
        if (index < 0 || index >= end)
            raise(PyExc_ValueError,
                  "malformed sparse matrix: %s has the entry %zd, outside 0 to %zd", name, index,
                  end - 1);
}

Py_ssize_t data_size(PyObject* matrix, Py_ssize_t axes = 1) {
    Ref data = array_field(matrix, "data", axes);
    Py_ssize_t size = PyObject_Length(data.get());
    check(static_cast<int>(std::min<Py_ssize_t>(size, 0)));
    return size;
}

void check_compressed(const std::vector<Py_ssize_t>& indptr, const std::vector<Py_ssize_t>& indices,
                      Py_ssize_t data, Py_ssize_t lines, Py_ssize_t extent) {
    if (static_cast<Py_ssize_t>(indptr.size()) != lines + 1 || indptr.front() != 0)
        raise(PyExc_ValueError,
              "malformed sparse matrix: indptr must start with 0 and have %zd entries, it has %zd",
              lines + 1, static_cast<Py_ssize_t>(indptr.size()));
    for (Py_ssize_t k = 0; k < lines; ++k)
        if (indptr[k + 1] < indptr[k])
            raise(PyExc_ValueError, "malformed sparse matrix: indptr falls after entry %zd", k);
    Py_ssize_t stored = std::min(data, static_cast<Py_ssize_t>(indices.size()));
    if (indptr.back() > stored)
        raise(PyExc_ValueError,
              "malformed sparse matrix: indptr ends at %zd, but there are %zd stored entries",
              indptr.back(), stored);
    check_range(indices, extent, "indices");
}

bool has_format(PyObject* matrix, const char* format) {
    Ref found = field(matrix, "format");
    return PyUnicode_Check(found.get()) &&
           PyUnicode_CompareWithASCIIString(found.get(), format) == 0;
}

void check_coordinates(PyObject* matrix, const Shape& shape) {
    Ref coords = field(matrix, "coords");
    if (PyObject_Length(coords.get()) != 2)
        raise(PyExc_ValueError, "malformed sparse matrix: coords must hold two arrays");
    std::vector<Py_ssize_t> rows = index_array(matrix, "row"), cols = index_array(matrix, "col");
    check_range(rows, shape[0], "row");
    check_range(cols, shape[1], "col");
    if (rows.size() != cols.size() || static_cast<Py_ssize_t>(rows.size()) != data_size(matrix))
        raise(PyExc_ValueError, "malformed sparse matrix: row, col and data differ in length");
}

void check_lines(PyObject* matrix, Py_ssize_t lines, Py_ssize_t extent, Py_ssize_t axes = 1) {
    check_compressed(index_array(matrix, "indptr"), index_array(matrix, "indices"),
                     data_size(matrix, axes), lines, extent);
}

void check_blocks(PyObject* matrix, const Shape& shape) {
    data_size(matrix, 3);
    Ref blocksize = field(matrix, "blocksize");
    Shape block = shape_from(blocksize.get());
    if (block[0] == 0 || block[1] == 0 || shape[0] % block[0] != 0 || shape[1] % block[1] != 0)
        raise(PyExc_ValueError, "malformed sparse matrix: its blocks have the shape %R",
              blocksize.get());
    check_lines(matrix, shape[0] / block[0], shape[1] / block[1], 3);
}

void check_diagonals(PyObject* matrix, const Shape& shape) {
    Ref data = field(matrix, "data");
    Ref data_shape = field(data.get(), "shape");
    Shape diagonals = shape_from(data_shape.get());
    std::vector<Py_ssize_t> offsets = index_array(matrix, "offsets");
    if (diagonals.size() != 2 || diagonals[0] != static_cast<Py_ssize_t>(offsets.size()))
        raise(PyExc_ValueError, "malformed sparse matrix: %zu offsets for data of shape %R",
              offsets.size(), data_shape.get());
    std::sort(offsets.begin(), offsets.end());
    if (std::adjacent_find(offsets.begin(), offsets.end()) != offsets.end())
        raise(PyExc_ValueError, "malformed sparse matrix: an offset is given twice");
    // SciPy adds an extent to an offset in 32 bits.
    const Py_ssize_t largest = INT32_MAX - *std::max_element(shape.begin(), shape.end());
    for (Py_ssize_t offset : offsets)
        if (offset > largest || offset < -largest)
            raise(PyExc_ValueError,
                  "malformed sparse matrix: the offset %zd lies outside of any matrix", offset);
}

/// The lengths of the lists in a field of a matrix of lists.
Shape list_lengths(PyObject* matrix, const char* name) {
    Ref lists = field(matrix, name);
    Ref items = checked(PySequence_Tuple(lists.get()));
    Shape lengths;
    for (Py_ssize_t k = 0; k < PyTuple_GET_SIZE(items.get()); ++k) {
        PyObject* list = PyTuple_GET_ITEM(items.get(), k);
        if (!PyList_Check(list))
            raise(PyExc_ValueError, "malformed sparse matrix: %s[%zd] is no list", name, k);
        lengths.push_back(PyList_GET_SIZE(list));
    }
    return lengths;
}

void check_lists(PyObject* matrix, const Shape& shape) {
    Shape rows = list_lengths(matrix, "rows");
    if (rows != list_lengths(matrix, "data") || static_cast<Py_ssize_t>(rows.size()) != shape[0])
        raise(PyExc_ValueError, "malformed sparse matrix: rows and data differ in length");
}

/// Refuses what SciPy would walk out of bounds when it converts the format.
void check_before_conversion(PyObject* matrix, const Shape& shape) {
    if (has_format(matrix, "csr")) check_lines(matrix, shape[0], shape[1]);
    if (has_format(matrix, "csc")) check_lines(matrix, shape[1], shape[0]);
    if (has_format(matrix, "coo")) check_coordinates(matrix, shape);
    if (has_format(matrix, "bsr")) check_blocks(matrix, shape);
    if (has_format(matrix, "dia")) check_diagonals(matrix, shape);
    if (has_format(matrix, "lil")) check_lists(matrix, shape);
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

std::vector<Ref> float_values(PyObject* matrix) {
    Ref data = field(matrix, "data");
    Ref asarray = import_name("numpy", "asarray");
    Ref doubles = checked(PyObject_CallFunction(asarray.get(), "Os", data.get(), "float64"));
    Buffer buffer(doubles.get(), PyBUF_RECORDS_RO);
    if (buffer->ndim != 1)
        raise(PyExc_ValueError, "malformed sparse matrix: data must be one-dimensional");
    Walker walker(buffer);
    std::vector<Ref> values;
    values.reserve(buffer.size());
    for (Py_ssize_t k = buffer.size(); k > 0; --k)
        values.push_back(
            checked(PyFloat_FromDouble(*reinterpret_cast<const double*>(walker.next()))));
    return values;
}

/// The matrix, or its twin in another format, once all of it is found sound.
Ref sound_matrix(PyObject* given, const Shape& shape) {
    check_before_conversion(given, shape);
    if (!has_format(given, "lil")) return borrow(given);
    Ref matrix = checked(PyObject_CallMethod(given, "tocsr", nullptr));
    check_before_conversion(matrix.get(), shape);  // its indices stand in an array only now
    return matrix;
}

}  // namespace

Shape sparse_shape(PyObject* matrix) {
    Ref shape = field(matrix, "shape");
    return shape_from(shape.get());
}

Ref dense_array(PyObject*, PyObject* given) {
    Shape shape = sparse_shape(given);
    if (shape.size() == 2)
        return checked(PyObject_CallMethod(sound_matrix(given, shape).get(), "toarray", nullptr));
    Ref row =
        checked(PyObject_CallMethod(given, "reshape", "((nn))", Py_ssize_t(1), Py_ssize_t(-1)));
    Ref array = dense_array(nullptr, row.get());
    return checked(PyObject_CallMethod(array.get(), "reshape", "(O)", shape_tuple(shape).get()));
}

CompressedMatrix read_compressed(PyObject* given, const Shape& shape, bool by_columns) {
    if (shape.size() != 2)
        raise(PyExc_ValueError,
              "matmul: a sparse array of %zd dimensions; reshape it to one row or one column",
              static_cast<Py_ssize_t>(shape.size()));
    Ref matrix = sound_matrix(given, shape);
    if (!has_format(matrix.get(), by_columns ? "csc" : "csr"))
        matrix =
            checked(PyObject_CallMethod(matrix.get(), by_columns ? "tocsc" : "tocsr", nullptr));
    CompressedMatrix compressed;
    compressed.indptr = index_array(matrix.get(), "indptr");
    compressed.indices = index_array(matrix.get(), "indices");
    compressed.values = float_values(matrix.get());
    check_compressed(compressed.indptr, compressed.indices,
                     static_cast<Py_ssize_t>(compressed.values.size()), shape[by_columns ? 1 : 0],
                     shape[by_columns ? 0 : 1]);
    sort_lines(compressed);
    return compressed;
}

}  // namespace taviropy
