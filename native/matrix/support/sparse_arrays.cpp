#include "support/sparse_arrays.hpp"

#include <cstring>
#include <iterator>
#include <type_traits>

#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/numbers.hpp"

namespace taviropy::sparse {

using namespace nb::literals;

// ---- Views -------------------------------------------------------------------------------------

bool Dense::acquire(nb::handle np, nb::handle A) {
    if (!A.type().is(np.attr("ndarray")) || !view.acquire(A, PyBUF_STRIDES | PyBUF_FORMAT))
        return false;
    if (view->ndim > 2 || !is_real_format(view)) return false;
    if (!view.holds('d')) {
        nb::object doubles = A.attr("astype")(nb::getattr(np, "float64"));
        if (!view.acquire(doubles, PyBUF_STRIDES | PyBUF_FORMAT)) return false;
    }
    base = static_cast<const char*>(view->buf);
    if (view->ndim == 2) {
        rows = view->shape[0];
        row_stride = view->strides[0];
    }
    if (view->ndim > 0) {
        cols = view->shape[view->ndim - 1];
        col_stride = view->strides[view->ndim - 1];
    }
    return true;
}

Py_ssize_t Dense::count_nonzero() const {
    Py_ssize_t count = 0;
    for (Py_ssize_t i = 0; i < rows; ++i) {
        if (has_whole_rows() && cols > 0) {
            const double* row = &at(i, 0);
            count += cols - std::count(row, row + cols, 0.0);
        } else {
            for (Py_ssize_t j = 0; j < cols; ++j) count += at(i, j) != 0.0;
        }
    }
    return count;
}

// ---- Fresh arrays ------------------------------------------------------------------------------

/// NumPy's description of a type, made once and kept.
template <class T>
static nb::handle dtype_of(nb::handle np) {
    constexpr const char* name = std::is_same_v<T, double>         ? "float64"
                                 : std::is_same_v<T, std::int32_t> ? "int32"
                                                                   : "int64";
    static PyObject* dtype = nullptr;
    if (!dtype) dtype = nb::object(np.attr("dtype")(name)).release().ptr();
    return dtype;
}

template <class T>
Fresh<T>::Fresh(nb::handle np, Py_ssize_t size) : size_(size) {
    array_ = np.attr("empty")(size, dtype_of<T>(np));
    ArrayBuffer view;
    if (!view.acquire(array_, PyBUF_C_CONTIGUOUS | PyBUF_WRITABLE))
        raise(PyExc_TypeError, "numpy.empty gave no writable array");
    data_ = static_cast<T*>(view->buf);
}

template class Fresh<double>;
template class Fresh<std::int32_t>;
template class Fresh<std::int64_t>;

// ---- Matrices ----------------------------------------------------------------------------------

namespace {

/// The instance dictionary that SciPy's constructor leaves, which is also what its pickling
/// restores. Filling it directly costs a twentieth of the constructor, whose work is to validate
/// and convert. Looked at once for each class and kept; no static initializer, which would hold a
/// lock of its own.
struct Layout {
    PyObject* type = nullptr;      ///< the class; null where its instances look otherwise
    PyObject* maxprint = nullptr;  ///< the constructor's default

    /// Compares a matrix that the constructor made with the expected entries.
    Layout(nb::handle sp, const char* name, nb::handle made,
           std::initializer_list<const char*> keys) {
        nb::object cls = sp.attr(name);
        nb::handle object_type(reinterpret_cast<PyObject*>(&PyBaseObject_Type));
        nb::object state = made.attr("__dict__");
        bool fits = nb::len(state) == keys.size() && made.type().is(cls) &&
                    cls.attr("__new__").is(object_type.attr("__new__")) &&
                    cls.attr("__setattr__").is(object_type.attr("__setattr__"));
        for (const char* key : keys) fits = fits && nb::cast<bool>(state.attr("__contains__")(key));
        if (!fits || !nb::isinstance<nb::tuple>(state["_shape"])) return;
        maxprint = nb::object(state["maxprint"]).release().ptr();
        type = cls.release().ptr();
    }
};

/// A matrix with an empty dictionary but for shape and maxprint.
nb::object bare_matrix(const Layout& layout, Py_ssize_t rows, Py_ssize_t cols) {
    nb::tuple no_args = nb::steal<nb::tuple>(PyTuple_New(0));
    auto* type = reinterpret_cast<PyTypeObject*>(layout.type);
    nb::object matrix = checked(PyBaseObject_Type.tp_new(type, no_args.ptr(), nullptr));
    matrix.attr("_shape") = nb::make_tuple(rows, cols);
    matrix.attr("maxprint") = nb::handle(layout.maxprint);
    return matrix;
}

Layout csr_layout(nb::handle sp) {
    auto np = import_numpy();
    nb::object zeros = np.attr("zeros")(1, nb::getattr(np, "int32")), ones = np.attr("ones")(1);
    nb::object ends = np.attr("arange")(2, "dtype"_a = nb::getattr(np, "int32"));
    nb::object made =
        sp.attr("csr_matrix")(nb::make_tuple(ones, zeros, ends), "shape"_a = nb::make_tuple(1, 1));
    return Layout(sp, "csr_matrix", made, {"_shape", "maxprint", "indptr", "indices", "data"});
}

Layout coo_layout(nb::handle sp) {
    auto np = import_numpy();
    nb::object zeros = np.attr("zeros")(1, nb::getattr(np, "int32")), ones = np.attr("ones")(1);
    nb::object made =
        sp.attr("coo_matrix")(nb::make_tuple(ones, nb::make_tuple(zeros, zeros.attr("copy")())),
                              "shape"_a = nb::make_tuple(1, 1));
    return Layout(sp, "coo_matrix", made,
                  {"_shape", "maxprint", "coords", "data", "has_canonical_format"});
}

}  // namespace

nb::object new_csr(nb::handle sp, nb::handle data, nb::handle indices, nb::handle indptr,
                   Py_ssize_t rows, Py_ssize_t cols) {
    static const Layout* layout = nullptr;
    if (!layout) layout = new Layout(csr_layout(sp));
    nb::object type = sp.attr("csr_matrix");
    if (type.ptr() != layout->type)
        return type(nb::make_tuple(data, indices, indptr), "shape"_a = nb::make_tuple(rows, cols));
    nb::object matrix = bare_matrix(*layout, rows, cols);
    matrix.attr("indptr") = indptr;
    matrix.attr("indices") = indices;
    matrix.attr("data") = data;
    return matrix;
}

nb::object new_coo(nb::handle sp, nb::handle data, nb::handle row, nb::handle col, Py_ssize_t rows,
                   Py_ssize_t cols, bool canonical) {
    static const Layout* layout = nullptr;
    if (!layout) layout = new Layout(coo_layout(sp));
    nb::object type = sp.attr("coo_matrix");
    nb::tuple coords = nb::make_tuple(row, col);
    nb::object matrix;
    if (type.ptr() == layout->type) {
        matrix = bare_matrix(*layout, rows, cols);
        matrix.attr("coords") = coords;
        matrix.attr("data") = data;
    } else {
        matrix = type(nb::make_tuple(data, coords), "shape"_a = nb::make_tuple(rows, cols));
    }
    matrix.attr("has_canonical_format") = nb::bool_(canonical);
    return matrix;
}

}  // namespace taviropy::sparse
