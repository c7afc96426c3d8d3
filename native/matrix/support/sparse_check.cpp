// The soundness of sparse matrices that come from a user. SciPy's own code trusts the arrays and
// walks malformed ones into foreign memory, so this comes before anything of SciPy's touches them.

#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"
#include "support/sparse.hpp"
#include "support/sparse_arrays.hpp"

namespace taviropy::sparse {

using namespace nb::literals;

namespace {

std::string class_name(nb::handle object) { return text_of(object.type().attr("__name__")); }

[[noreturn]] void refuse(nb::handle A, const std::string& what) {
    raise(PyExc_ValueError, "malformed " + class_name(A) + " of shape " + text_of(A.attr("shape")) +
                                ": " + what +
                                "; rebuild the matrix from sound arrays, for instance by "
                                "scipy.sparse.coo_matrix((data, (row, col)), shape)");
}

std::string entry(const char* array, Py_ssize_t position, Py_ssize_t value) {
    return std::string(array) + "[" + std::to_string(position) + "] = " + std::to_string(value);
}

std::string range_text(Py_ssize_t bound) {
    if (bound <= 0) return "but there is no valid index along an axis of length 0";
    return "but the indices of that axis go from 0 to " + std::to_string(bound - 1);
}

std::string length_text(const char* array, Py_ssize_t length) {
    return std::string(array) + " has " + std::to_string(length) + " entries";
}

void take_indices(IndexArray& view, nb::handle A, nb::handle array, const char* name) {
    if (!view.acquire(array))
        refuse(A, std::string(name) + " is no array of integers but " +
                      (nb::hasattr(array, "dtype") ? text_of(array.attr("dtype"))
                                                   : class_name(array)));
    if (view.ndim() != 1)
        refuse(A, std::string(name) + " has " + std::to_string(view.ndim()) + " axes instead of 1");
}

void take_data(DataArray& view, nb::handle A, int ndim) {
    nb::object array = A.attr("data");
    if (!view.acquire(array)) refuse(A, "data is no array but " + class_name(array));
    if (view.ndim() != ndim)
        refuse(A, "data has " + std::to_string(view.ndim()) + " axes instead of " +
                      std::to_string(ndim));
}

/// One pass without a branch in it, which compilers vectorise; the culprit is looked for
/// afterwards. The sign bit of `value | (last - value)` tells whether a value is negative or above
/// the last one.
template <class I>
bool all_within(const I* values, Py_ssize_t size, Py_ssize_t bound) {
    using U = std::make_unsigned_t<I>;
    if (bound <= 0) return size == 0;
    const auto last =
        static_cast<U>(std::min<Py_ssize_t>(bound - 1, std::numeric_limits<I>::max()));
    U signs = 0;
    for (Py_ssize_t k = 0; k < size; ++k) {
        const auto value = static_cast<U>(values[k]);
        signs |= value | (last - value);
    }
    return static_cast<I>(signs) >= 0;
}

void check_range(nb::handle A, const IndexArray& view, Py_ssize_t size, Py_ssize_t bound,
                 const char* name) {
    bool sound = with_index(view.wide(), [&](auto index) {
        return all_within(view.as<decltype(index)>(), size, bound);
    });
    if (sound) return;
    Py_ssize_t k = 0;
    while (view[k] >= 0 && view[k] < bound) ++k;
    refuse(A, entry(name, k, view[k]) + ", " + range_text(bound));
}

template <class I>
bool never_falls(const I* values, Py_ssize_t size) {
    bool falls = false;
    for (Py_ssize_t k = 1; k < size; ++k) falls |= values[k] < values[k - 1];
    return !falls;
}

void check_indptr(nb::handle A, const IndexArray& indptr, Py_ssize_t major, Py_ssize_t stored) {
    if (indptr.size() != major + 1)
        refuse(A,
               length_text("indptr", indptr.size()) + " instead of " + std::to_string(major + 1));
    if (indptr[0] != 0) refuse(A, entry("indptr", 0, indptr[0]) + " instead of 0");
    bool sound = with_index(indptr.wide(), [&](auto index) {
        return never_falls(indptr.as<decltype(index)>(), indptr.size());
    });
    if (!sound) {
        Py_ssize_t k = 1;
        while (indptr[k] >= indptr[k - 1]) ++k;
        refuse(A, entry("indptr", k, indptr[k]) + " is less than " +
                      entry("indptr", k - 1, indptr[k - 1]));
    }
    if (indptr[major] > stored)
        refuse(A,
               entry("indptr", major, indptr[major]) + ", but " + length_text("indices", stored));
}

nb::object shape_of(nb::handle A) { return A.attr("shape"); }

Py_ssize_t extent(nb::handle shape, int axis) {
    nb::object length = shape[axis];
    Py_ssize_t value = PyNumber_AsSsize_t(length.ptr(), PyExc_OverflowError);
    if (value == -1 && PyErr_Occurred()) throw nb::python_error();
    if (value < 0)
        raise(PyExc_ValueError, "malformed sparse matrix: its shape " + text_of(shape) +
                                    " has a negative extent; rebuild it with its true shape");
    return value;
}

void check_dia(nb::handle A) {
    IndexArray offsets;
    DataArray data;
    take_indices(offsets, A, A.attr("offsets"), "offsets");
    take_data(data, A, 2);
    if (data.length() != offsets.size())
        refuse(A, "data has " + std::to_string(data.length()) + " diagonals, but " +
                      length_text("offsets", offsets.size()));
    std::vector<Py_ssize_t> sorted;
    for (Py_ssize_t k = 0; k < offsets.size(); ++k) sorted.push_back(offsets[k]);
    std::sort(sorted.begin(), sorted.end());
    auto twice = std::adjacent_find(sorted.begin(), sorted.end());
    if (twice != sorted.end()) refuse(A, "offset " + std::to_string(*twice) + " is given twice");
    // SciPy adds an extent to an offset in 32 bits.
    nb::object shape = shape_of(A);
    const Py_ssize_t largest =
        std::numeric_limits<std::int32_t>::max() - std::max(extent(shape, 0), extent(shape, 1));
    for (Py_ssize_t offset : sorted)
        if (offset > largest || offset < -largest)
            refuse(A, "offset " + std::to_string(offset) + " lies outside of any matrix");
}

/// Whether an object is read as a number without code of the user, which could change what is being
/// walked, here or within SciPy: a number of Python or NumPy, and no class that was made by Python
/// code.
bool is_plain_number(nb::handle number) {
    return PyLong_Check(number.ptr()) || PyFloat_Check(number.ptr()) ||
           PyComplex_Check(number.ptr()) ||
           !PyType_HasFeature(Py_TYPE(number.ptr()), Py_TPFLAGS_HEAPTYPE);
}

bool is_index(nb::handle index, Py_ssize_t bound) {
    if (!is_plain_number(index)) return false;
    Py_ssize_t value = PyNumber_AsSsize_t(index.ptr(), PyExc_OverflowError);
    if (value == -1 && PyErr_Occurred()) PyErr_Clear();
    return value >= 0 && value < bound;
}

nb::list list_at(nb::handle A, nb::handle rows, Py_ssize_t row, const char* name) {
    nb::object list = rows[row];
    if (!PyList_Check(list.ptr()))
        refuse(A, std::string(name) + "[" + std::to_string(row) + "] is no list but " +
                      class_name(list));
    return nb::borrow<nb::list>(list);
}

void check_lil(nb::handle A) {
    nb::object shape = shape_of(A), rows = A.attr("rows"), data = A.attr("data");
    const Py_ssize_t height = extent(shape, 0), width = extent(shape, 1);
    for (auto [name, array] : {std::pair{"rows", rows}, std::pair{"data", data}})
        if (static_cast<Py_ssize_t>(nb::len(array)) != height)
            refuse(A, length_text(name, static_cast<Py_ssize_t>(nb::len(array))) + " instead of " +
                          std::to_string(height));
    for (Py_ssize_t i = 0; i < height; ++i) {
        nb::list columns = list_at(A, rows, i, "rows"), values = list_at(A, data, i, "data");
        const std::string at = std::string("[").append(std::to_string(i)).append("]");
        if (nb::len(columns) != nb::len(values))
            refuse(A, std::string("rows") + at + " and data" + at + " have different lengths, " +
                          std::to_string(nb::len(columns)) + " and " +
                          std::to_string(nb::len(values)));
        for (std::size_t k = 0; k < nb::len(columns); ++k) {
            nb::object column = columns[k], value = values[k];
            const std::string place = at + "[" + std::to_string(k) + "]";
            if (!is_index(column, width))
                refuse(A, "rows" + place + " = " + text_of(nb::repr(column)) + ", " +
                              range_text(width));
            if (!is_plain_number(value))
                refuse(A, "data" + place + " is no number but " + class_name(value));
        }
    }
}

void check_dok(nb::handle A) {
    nb::object shape = shape_of(A);
    const std::size_t ndim = nb::len(shape);
    for (nb::handle key : A.attr("keys")()) {
        nb::object coords = ndim == 1 ? nb::object(nb::make_tuple(key)) : nb::borrow(key);
        bool fits = PyTuple_Check(coords.ptr()) && nb::len(coords) == ndim;
        for (std::size_t axis = 0; fits && axis < ndim; ++axis)
            fits = is_index(coords[axis], extent(shape, static_cast<int>(axis)));
        if (!fits)
            refuse(A, std::string("its key ") + text_of(nb::repr(key)) +
                          " is no index of a matrix of that shape");
    }
}

/// The data and the number of coordinate arrays of a coo matrix with any number of axes.
nb::object take_coo(DataArray& data, nb::handle A, std::size_t ndim) {
    nb::object coords = A.attr("coords");
    if (nb::len(coords) != ndim)
        refuse(A, "coords has " + std::to_string(nb::len(coords)) + " arrays instead of " +
                      std::to_string(ndim));
    take_data(data, A, 1);
    return coords;
}

std::string coordinate_name(int axis) { return "coords[" + std::to_string(axis) + "]"; }

void take_coordinate(IndexArray& index, nb::handle A, nb::handle coords, int axis) {
    take_indices(index, A, coords[axis], coordinate_name(axis).c_str());
}

void check_coordinate(const IndexArray& index, nb::handle A, int axis, Py_ssize_t stored,
                      Py_ssize_t extent) {
    const std::string name = coordinate_name(axis);
    if (index.size() != stored)
        refuse(A, length_text(name.c_str(), index.size()) + ", but " + length_text("data", stored));
    check_range(A, index, stored, extent, name.c_str());
}

void check_coo(nb::handle A) {
    const std::size_t ndim = nb::len(shape_of(A));
    DataArray data;
    nb::object coords = take_coo(data, A, ndim);
    for (std::size_t axis = 0; axis < ndim; ++axis) {
        const int number = static_cast<int>(axis);
        const Py_ssize_t length = extent(shape_of(A), number);
        IndexArray index;
        take_coordinate(index, A, coords, number);
        check_coordinate(index, A, number, data.length(), length);
    }
}

/// The class of SciPy's own for the format of a matrix of a class derived from it; invalid for a
/// matrix of SciPy's own. Fields and methods of a derived class may run code of the user between
/// the look at the arrays and SciPy's walk over them.
nb::object base_class(nb::handle sp, nb::handle A, const std::string& format) {
    nb::object matrix = sp.attr((format + "_matrix").c_str());
    nb::object array = sp.attr((format + "_array").c_str());
    if (A.type().is(matrix) || A.type().is(array)) return nb::object();
    return is_instance(A, array) ? array : matrix;
}

/// The same matrix on arrays that end with its last stored entry. SciPy lets arrays be longer, but
/// not all of its code copes with that.
nb::object without_spare(nb::handle A, const Compressed& c) {
    nb::slice stored(nb::int_(0), nb::int_(c.nnz), nb::none());
    nb::object data = A.attr("data")[stored], indices = A.attr("indices")[stored];
    return A.type()(nb::make_tuple(data, indices, nb::getattr(A, "indptr")),
                    "shape"_a = shape_of(A));
}

}  // namespace

Compressed::Compressed(nb::handle A, const char* format, Later) {
    const std::string_view kind(format);
    nb::object shape = shape_of(A);
    const bool flat = nb::len(shape) == 1;  // a csr_array of one axis is stored as one row
    major = flat ? 1 : extent(shape, 0);
    minor = extent(shape, flat ? 0 : 1);
    if (kind == "csc") std::swap(major, minor);
    take_data(data, A, kind == "bsr" ? 3 : 1);
    if (kind == "bsr") {
        const Py_ssize_t height = data.extent(1), width = data.extent(2);
        if (height < 1 || width < 1 || major % height != 0 || minor % width != 0)
            refuse(A, "its blocks of shape (" + std::to_string(height) + ", " +
                          std::to_string(width) + ") don't divide it");
        major /= height;
        minor /= width;
    }
    take_indices(indptr, A, A.attr("indptr"), "indptr");
    take_indices(indices, A, A.attr("indices"), "indices");
    IndexArray::unify(indptr, indices);
}

void Compressed::check(nb::handle A) {
    if (indices.size() != data.length())
        refuse(A, length_text("indices", indices.size()) + ", but " +
                      length_text("data", data.length()));
    check_indptr(A, indptr, major, indices.size());
    nnz = indptr[major];
    check_range(A, indices, nnz, minor, "indices");
}

Triplets::Triplets(nb::handle A) {
    nb::object shape = shape_of(A);
    rows = extent(shape, 0);
    cols = extent(shape, 1);
    nb::object coords = take_coo(data, A, 2);
    nnz = data.length();
    take_coordinate(row, A, coords, 0);
    take_coordinate(col, A, coords, 1);
    check_coordinate(row, A, 0, nnz, rows);
    check_coordinate(col, A, 1, nnz, cols);
    IndexArray::unify(row, col);
}

nb::object sound(nb::handle A) {
    auto sp = import_sparse();
    Kind kind = kind_of(sp, A);
    if (kind.format == Format::other && !is_sparse(sp, A)) return nb::borrow(A);
    nb::object shape = shape_of(A);
    for (std::size_t axis = 0; axis < nb::len(shape); ++axis) extent(shape, static_cast<int>(axis));
    const std::string format = kind.format == Format::csr   ? "csr"
                               : kind.format == Format::csc ? "csc"
                               : kind.format == Format::coo ? "coo"
                                                            : text_of(A.attr("format"));
    nb::object plain;  // not looked for where the class is known
    if (format == "csr" || format == "csc" || format == "bsr") {
        if (kind.format == Format::other) plain = base_class(sp, A, format);
        Compressed c(A, format.c_str());
        if (plain.is_valid())
            return sound(plain(nb::make_tuple(c.data.array(), c.indices.array(), c.indptr.array()),
                               "shape"_a = shape));
        if (c.has_spare()) return without_spare(A, c);
    } else if (format == "coo") {
        if (kind.format == Format::other) plain = base_class(sp, A, format);
        if (plain.is_valid() && nb::len(shape) == 2) {
            Triplets t(A);
            return plain(
                nb::make_tuple(t.data.array(), nb::make_tuple(t.row.array(), t.col.array())),
                "shape"_a = shape);
        }
        check_coo(A);
    } else if (format == "dia") {
        check_dia(A);
    } else if (format == "lil") {
        check_lil(A);
    } else if (format == "dok") {
        check_dok(A);
    }
    return nb::borrow(A);
}

void check(nb::handle A) { sound(A); }

}  // namespace taviropy::sparse
