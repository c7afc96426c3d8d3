#include "matrices.hpp"

#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace taviropy::sparse {

using namespace base;

namespace {

Ref class_name(PyObject* object) { return checked(PyType_GetName(Py_TYPE(object))); }

/// ValueError of a malformed matrix; the format says what is wrong with it.
[[noreturn]] void refuse(PyObject* A, const char* format, ...) {
    va_list values;
    va_start(values, format);
    Ref what(PyUnicode_FromFormatV(format, values));
    va_end(values);
    if (!what) throw PythonError();
    raise(PyExc_ValueError,
          "malformed %U of shape %S: %U; rebuild the matrix from sound arrays, for instance by "
          "scipy.sparse.coo_matrix((data, (row, col)), shape)",
          class_name(A).get(), field(A, "shape").get(), what.get());
}

std::string range_text(Py_ssize_t bound) {
    if (bound <= 0) return "but there is no valid index along an axis of length 0";
    return "but the indices of that axis go from 0 to " + std::to_string(bound - 1);
}

Py_ssize_t length_of(PyObject* object) { return checked(PyObject_Length(object)); }

Ref item(PyObject* object, Py_ssize_t place) { return checked(PySequence_GetItem(object, place)); }

// ---- Arrays ------------------------------------------------------------------------------------

void take_indices(IndexArray& view, PyObject* A, PyObject* array, const char* name) {
    if (!view.acquire(array)) {
        Ref dtype(PyObject_GetAttrString(array, "dtype"));
        if (!dtype) PyErr_Clear();
        refuse(A, "%s is no array of integers but %S", name,
               dtype ? dtype.get() : class_name(array).get());
    }
    if (view.ndim() != 1) refuse(A, "%s has %d axes instead of 1", name, view.ndim());
}

void take_indices(IndexArray& view, PyObject* A, const char* name) {
    take_indices(view, A, field(A, name).get(), name);
}

void take_data(DataArray& view, PyObject* A, int ndim) {
    Ref array = field(A, "data");
    if (!view.acquire(array.get()))
        refuse(A, "data is no array but %U", class_name(array.get()).get());
    if (view.ndim() != ndim) refuse(A, "data has %d axes instead of %d", view.ndim(), ndim);
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

void check_range(PyObject* A, const IndexArray& view, Py_ssize_t size, Py_ssize_t bound,
                 const char* name) {
    const bool sound = with_index(view.wide(), [&](auto index) {
        return all_within(view.as<decltype(index)>(), size, bound);
    });
    if (sound) return;
    Py_ssize_t k = 0;
    while (view[k] >= 0 && view[k] < bound) ++k;
    refuse(A, "%s[%zd] = %zd, %s", name, k, view[k], range_text(bound).c_str());
}

template <class I>
bool never_falls(const I* values, Py_ssize_t size) {
    bool falls = false;
    for (Py_ssize_t k = 1; k < size; ++k) falls |= values[k] < values[k - 1];
    return !falls;
}

void check_indptr(PyObject* A, const IndexArray& indptr, Py_ssize_t major, Py_ssize_t stored) {
    if (indptr.size() != major + 1)
        refuse(A, "indptr has %zd entries instead of %zd", indptr.size(), major + 1);
    if (indptr[0] != 0) refuse(A, "indptr[0] = %zd instead of 0", indptr[0]);
    const bool sound = with_index(indptr.wide(), [&](auto index) {
        return never_falls(indptr.as<decltype(index)>(), indptr.size());
    });
    if (!sound) {
        Py_ssize_t k = 1;
        while (indptr[k] >= indptr[k - 1]) ++k;
        refuse(A, "indptr[%zd] = %zd is less than indptr[%zd] = %zd", k, indptr[k], k - 1,
               indptr[k - 1]);
    }
    if (indptr[major] > stored)
        refuse(A, "indptr[%zd] = %zd, but indices has %zd entries", major, indptr[major], stored);
}

/// The length of an axis.
Py_ssize_t extent(PyObject* shape, Py_ssize_t axis) {
    const Py_ssize_t value =
        checked(PyNumber_AsSsize_t(item(shape, axis).get(), PyExc_OverflowError));
    if (value < 0)
        raise(PyExc_ValueError,
              "malformed sparse matrix: its shape %S has a negative extent; rebuild it with its "
              "true shape",
              shape);
    return value;
}

// ---- Formats -----------------------------------------------------------------------------------

void check_dia(PyObject* A) {
    IndexArray offsets;
    DataArray data;
    take_indices(offsets, A, "offsets");
    take_data(data, A, 2);
    if (data.length() != offsets.size())
        refuse(A, "data has %zd diagonals, but offsets has %zd entries", data.length(),
               offsets.size());
    std::vector<Py_ssize_t> sorted;
    for (Py_ssize_t k = 0; k < offsets.size(); ++k) sorted.push_back(offsets[k]);
    std::sort(sorted.begin(), sorted.end());
    auto twice = std::adjacent_find(sorted.begin(), sorted.end());
    if (twice != sorted.end()) refuse(A, "offset %zd is given twice", *twice);
    // SciPy adds an extent to an offset in 32 bits.
    Ref shape = field(A, "shape");
    const Py_ssize_t largest = std::numeric_limits<std::int32_t>::max() -
                               std::max(extent(shape.get(), 0), extent(shape.get(), 1));
    for (Py_ssize_t offset : sorted)
        if (offset > largest || offset < -largest)
            refuse(A, "offset %zd lies outside of any matrix", offset);
}

/// Whether an object is read as a number without code of the user, which could change what is being
/// walked, here or within SciPy: a number of Python or NumPy, and no class that was made by Python
/// code.
bool is_plain_number(PyObject* number) {
    return PyLong_Check(number) || PyFloat_Check(number) || PyComplex_Check(number) ||
           !PyType_HasFeature(Py_TYPE(number), Py_TPFLAGS_HEAPTYPE);
}

bool is_index(PyObject* index, Py_ssize_t bound) {
    if (!is_plain_number(index)) return false;
    const Py_ssize_t value = PyNumber_AsSsize_t(index, PyExc_OverflowError);
    if (value == -1 && PyErr_Occurred()) PyErr_Clear();
    return value >= 0 && value < bound;
}

Ref list_at(PyObject* A, PyObject* rows, Py_ssize_t row, const char* name) {
    Ref list = item(rows, row);
    if (!PyList_Check(list.get()))
        refuse(A, "%s[%zd] is no list but %U", name, row, class_name(list.get()).get());
    return list;
}

void check_lil_row(PyObject* A, Py_ssize_t i, PyObject* columns, PyObject* values,
                   Py_ssize_t width) {
    if (PyList_GET_SIZE(columns) != PyList_GET_SIZE(values))
        refuse(A, "rows[%zd] and data[%zd] have different lengths, %zd and %zd", i, i,
               PyList_GET_SIZE(columns), PyList_GET_SIZE(values));
    for (Py_ssize_t k = 0; k < PyList_GET_SIZE(columns); ++k) {
        Ref column = item(columns, k), value = item(values, k);
        if (!is_index(column.get(), width))
            refuse(A, "rows[%zd][%zd] = %R, %s", i, k, column.get(), range_text(width).c_str());
        if (!is_plain_number(value.get()))
            refuse(A, "data[%zd][%zd] is no number but %U", i, k, class_name(value.get()).get());
    }
}

void check_lil(PyObject* A) {
    Ref shape = field(A, "shape"), rows = field(A, "rows"), data = field(A, "data");
    const Py_ssize_t height = extent(shape.get(), 0), width = extent(shape.get(), 1);
    for (auto [name, array] : {std::pair{"rows", rows.get()}, std::pair{"data", data.get()}})
        if (length_of(array) != height)
            refuse(A, "%s has %zd entries instead of %zd", name, length_of(array), height);
    for (Py_ssize_t i = 0; i < height; ++i) {
        Ref columns = list_at(A, rows.get(), i, "rows"), values = list_at(A, data.get(), i, "data");
        check_lil_row(A, i, columns.get(), values.get(), width);
    }
}

void check_dok(PyObject* A) {
    Ref shape = field(A, "shape");
    const Py_ssize_t ndim = length_of(shape.get());
    Ref keys = checked(PyObject_CallMethod(A, "keys", nullptr));
    Ref iterator = checked(PyObject_GetIter(keys.get()));
    while (Ref key = Ref(PyIter_Next(iterator.get()))) {
        Ref coords = ndim == 1 ? checked(PyTuple_Pack(1, key.get())) : borrow(key.get());
        bool fits = PyTuple_Check(coords.get()) && PyTuple_GET_SIZE(coords.get()) == ndim;
        for (Py_ssize_t axis = 0; fits && axis < ndim; ++axis)
            fits = is_index(PyTuple_GET_ITEM(coords.get(), axis), extent(shape.get(), axis));
        if (!fits) refuse(A, "its key %R is no index of a matrix of that shape", key.get());
    }
    if (PyErr_Occurred()) throw PythonError();
}

/// The data and the coordinate arrays of a coo matrix with any number of axes.
Ref take_coo(DataArray& data, PyObject* A, Py_ssize_t ndim) {
    Ref coords = field(A, "coords");
    if (length_of(coords.get()) != ndim)
        refuse(A, "coords has %zd arrays instead of %zd", length_of(coords.get()), ndim);
    take_data(data, A, 1);
    return coords;
}

std::string coordinate_name(Py_ssize_t axis) { return "coords[" + std::to_string(axis) + "]"; }

void take_coordinate(IndexArray& index, PyObject* A, PyObject* coords, Py_ssize_t axis) {
    take_indices(index, A, item(coords, axis).get(), coordinate_name(axis).c_str());
}

void check_coordinate(const IndexArray& index, PyObject* A, Py_ssize_t axis, Py_ssize_t stored,
                      Py_ssize_t extent) {
    const std::string name = coordinate_name(axis);
    if (index.size() != stored)
        refuse(A, "%s has %zd entries, but data has %zd entries", name.c_str(), index.size(),
               stored);
    check_range(A, index, stored, extent, name.c_str());
}

void check_coo(PyObject* A, PyObject* shape) {
    const Py_ssize_t ndim = length_of(shape);
    DataArray data;
    Ref coords = take_coo(data, A, ndim);
    for (Py_ssize_t axis = 0; axis < ndim; ++axis) {
        const Py_ssize_t length = extent(shape, axis);
        IndexArray index;
        take_coordinate(index, A, coords.get(), axis);
        check_coordinate(index, A, axis, data.length(), length);
    }
}

// ---- Classes -----------------------------------------------------------------------------------

Ref scipy_sparse(const char* name) {
    static LazyModule module("scipy.sparse");
    return module.get(name);
}

bool is_sparse(PyObject* object) {
    // SciPy's classes are Python classes, so nothing of a static type, such as a number or an
    // ndarray, is sparse; this spares a call of a Python function in most operators.
    if (!PyType_HasFeature(Py_TYPE(object), Py_TPFLAGS_HEAPTYPE)) return false;
    Ref answer = checked(PyObject_CallOneArg(scipy_sparse("issparse").get(), object));
    return checked(PyObject_IsTrue(answer.get()));
}

/// The class of SciPy's own for the format of a matrix of a class derived from it; empty for a
/// matrix of SciPy's own. Fields and methods of a derived class may run code of the user between
/// the look at the arrays and SciPy's walk over them.
Ref base_class(PyObject* A, const std::string& format) {
    Ref matrix = scipy_sparse((format + "_matrix").c_str());
    Ref array = scipy_sparse((format + "_array").c_str());
    auto* type = reinterpret_cast<PyObject*>(Py_TYPE(A));
    if (type == matrix.get() || type == array.get()) return Ref();
    return checked(PyObject_IsInstance(A, array.get())) ? std::move(array) : std::move(matrix);
}

/// type(content, shape=shape)
Ref made(PyObject* type, Ref content, PyObject* shape) {
    Ref args = checked(PyTuple_Pack(1, content.get()));
    Ref kwargs = checked(Py_BuildValue("{sO}", "shape", shape));
    return checked(PyObject_Call(type, args.get(), kwargs.get()));
}

Ref tuple_of(PyObject* first, PyObject* second, PyObject* third) {
    return checked(PyTuple_Pack(3, first, second, third));
}

/// The same matrix on arrays that end with its last stored entry. SciPy lets arrays be longer, but
/// not all of its code copes with that.
Ref without_spare(PyObject* A, const Compressed& c) {
    Ref begin = checked(PyLong_FromLong(0)), end = checked(PyLong_FromSsize_t(c.nnz));
    Ref stored = checked(PySlice_New(begin.get(), end.get(), nullptr));
    Ref data = checked(PyObject_GetItem(field(A, "data").get(), stored.get()));
    Ref indices = checked(PyObject_GetItem(field(A, "indices").get(), stored.get()));
    Ref arrays = tuple_of(data.get(), indices.get(), field(A, "indptr").get());
    return made(reinterpret_cast<PyObject*>(Py_TYPE(A)), std::move(arrays),
                field(A, "shape").get());
}

Ref sound_compressed(PyObject* A, const std::string& format, const Ref& plain, PyObject* shape) {
    Compressed c(A, format.c_str());
    if (plain) {
        Ref arrays = tuple_of(c.data.array(), c.indices.array(), c.indptr.array());
        return sound(made(plain.get(), std::move(arrays), shape).get());
    }
    return c.has_spare() ? without_spare(A, c) : borrow(A);
}

Ref sound_coo(PyObject* A, const Ref& plain, PyObject* shape) {
    if (!plain || length_of(shape) != 2) {
        check_coo(A, shape);
        return borrow(A);
    }
    Triplets t(A);
    Ref coords = checked(PyTuple_Pack(2, t.row.array(), t.col.array()));
    return made(plain.get(), checked(PyTuple_Pack(2, t.data.array(), coords.get())), shape);
}

/// The format of a sparse matrix, in SciPy's words.
std::string format_of(PyObject* A, const Kind& kind) {
    switch (kind.format) {
        case Format::csr:
            return "csr";
        case Format::csc:
            return "csc";
        case Format::coo:
            return "coo";
        default:
            break;
    }
    Ref text = checked(PyObject_Str(field(A, "format").get()));
    const char* letters = PyUnicode_AsUTF8(text.get());
    if (!letters) throw PythonError();
    return letters;
}

}  // namespace

Compressed::Compressed(PyObject* A, const char* format, Later) {
    const std::string_view kind(format);
    Ref shape = field(A, "shape");
    const bool flat = length_of(shape.get()) == 1;  // a csr_array of one axis is stored as one row
    major = flat ? 1 : extent(shape.get(), 0);
    minor = extent(shape.get(), flat ? 0 : 1);
    if (kind == "csc") std::swap(major, minor);
    take_data(data, A, kind == "bsr" ? 3 : 1);
    if (kind == "bsr") {
        const Py_ssize_t height = data.extent(1), width = data.extent(2);
        if (height < 1 || width < 1 || major % height != 0 || minor % width != 0)
            refuse(A, "its blocks of shape (%zd, %zd) don't divide it", height, width);
        major /= height;
        minor /= width;
    }
    take_indices(indptr, A, "indptr");
    take_indices(indices, A, "indices");
    IndexArray::unify(indptr, indices);
}

void Compressed::check(PyObject* A) {
    if (indices.size() != data.length())
        refuse(A, "indices has %zd entries, but data has %zd entries", indices.size(),
               data.length());
    check_indptr(A, indptr, major, indices.size());
    nnz = indptr[major];
    check_range(A, indices, nnz, minor, "indices");
}

Triplets::Triplets(PyObject* A) {
    Ref shape = field(A, "shape");
    rows = extent(shape.get(), 0);
    cols = extent(shape.get(), 1);
    Ref coords = take_coo(data, A, 2);
    nnz = data.length();
    take_coordinate(row, A, coords.get(), 0);
    take_coordinate(col, A, coords.get(), 1);
    check_coordinate(row, A, 0, nnz, rows);
    check_coordinate(col, A, 1, nnz, cols);
    IndexArray::unify(row, col);
}

Kind kind_of(PyObject* A) {
    static constexpr struct {
        const char* name;
        Kind kind;
    } known[] = {{"csr_matrix", {Format::csr, false}}, {"csr_array", {Format::csr, true}},
                 {"csc_matrix", {Format::csc, false}}, {"csc_array", {Format::csc, true}},
                 {"coo_matrix", {Format::coo, false}}, {"coo_array", {Format::coo, true}}};
    static PyObject* types[std::size(known)] = {};  // SciPy's classes, looked up once and kept
    for (std::size_t k = 0; k < std::size(known); ++k) {
        if (!types[k]) types[k] = scipy_sparse(known[k].name).release();
        if (types[k] != reinterpret_cast<PyObject*>(Py_TYPE(A))) continue;
        if (!known[k].kind.is_array) return known[k].kind;
        return length_of(field(A, "shape").get()) == 2 ? known[k].kind : Kind();
    }
    return Kind();
}

Ref sound(PyObject* A) {
    const Kind kind = kind_of(A);
    if (kind.format == Format::other && !is_sparse(A)) return borrow(A);
    Ref shape = field(A, "shape");
    for (Py_ssize_t axis = length_of(shape.get()) - 1; axis >= 0; --axis) extent(shape.get(), axis);
    const std::string format = format_of(A, kind);
    const bool is_compressed = format == "csr" || format == "csc" || format == "bsr";
    Ref plain;  // not looked for where the class is known
    if (kind.format == Format::other && (is_compressed || format == "coo"))
        plain = base_class(A, format);
    if (is_compressed) return sound_compressed(A, format, plain, shape.get());
    if (format == "coo") return sound_coo(A, plain, shape.get());
    if (format == "dia") check_dia(A);
    if (format == "lil") check_lil(A);
    if (format == "dok") check_dok(A);
    return borrow(A);
}

}  // namespace taviropy::sparse
