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

namespace {

constexpr int kContiguous = PyBUF_C_CONTIGUOUS | PyBUF_FORMAT;

bool holds_index(const ArrayBuffer& view) {
    return view.holds('i') || ((view.holds('l') || view.holds('q')) && view->itemsize == 8);
}

/// Types that convert to float64 without SciPy's refusing or warning.
bool is_real_format(const ArrayBuffer& view) {
    const char* format = view->format;
    return format && std::strlen(format) == 1 && std::strchr("?bBhHiIlLqQfd", *format);
}

nb::object as_int64(nb::handle array) {
    auto np = import_numpy();
    return np.attr("array")(array, "dtype"_a = nb::getattr(np, "int64"), "order"_a = "C");
}

}  // namespace

bool IndexArray::acquire(nb::handle array) {
    auto np = import_numpy();
    if (!is_ndarray(np, array)) return false;
    array_ = viewed_ = plain_array(np, array);
    if (!view_.acquire(array_, kContiguous) || !holds_index(view_)) {
        view_.release();
        std::string kind = text_of(array_.attr("dtype").attr("kind"));
        if (kind != "i" && kind != "u") return false;
        viewed_ = as_int64(array_);
        if (!view_.acquire(viewed_, kContiguous)) return false;
    }
    wide_ = view_->itemsize == 8;
    return true;
}

void IndexArray::widen() {
    if (wide_) return;
    viewed_ = as_int64(array_);
    view_.acquire(viewed_, kContiguous);
    wide_ = true;
}

void IndexArray::unify(IndexArray& a, IndexArray& b) {
    if (a.wide_ == b.wide_) return;
    a.widen();
    b.widen();
}

bool DataArray::acquire(nb::handle array) {
    auto np = import_numpy();
    if (!is_ndarray(np, array)) return false;
    array_ = viewed_ = plain_array(np, array);
    bool contiguous = view_.acquire(array_, kContiguous);
    if (contiguous || view_.acquire(array_, PyBUF_STRIDES | PyBUF_FORMAT)) {
        ndim_ = view_->ndim;
        length_ = ndim_ > 0 ? view_->shape[0] : 1;
        real_ = is_real_format(view_);
        double_ = contiguous && view_.holds('d');
        return true;
    }
    // A dtype that no buffer can tell, such as datetime64.
    ndim_ = nb::cast<int>(array_.attr("ndim"));
    length_ = ndim_ > 0 ? nb::cast<Py_ssize_t>(array_.attr("shape")[0]) : 1;
    return true;
}

Py_ssize_t DataArray::extent(int axis) const {
    return nb::cast<Py_ssize_t>(array_.attr("shape")[axis]);
}

const double* DataArray::doubles(nb::handle np) {
    if (!double_) {
        viewed_ =
            np.attr("asarray")(array_, "dtype"_a = nb::getattr(np, "float64"), "order"_a = "C");
        if (!view_.acquire(viewed_, kContiguous))
            raise(PyExc_TypeError, "the values of a sparse matrix could not be read as float64");
    }
    return static_cast<const double*>(view_->buf);
}

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

Kind kind_of(nb::handle sp, nb::handle A) {
    static constexpr struct {
        const char* name;
        Kind kind;
    } known[] = {{"csr_matrix", {Format::csr, false}}, {"csr_array", {Format::csr, true}},
                 {"csc_matrix", {Format::csc, false}}, {"csc_array", {Format::csc, true}},
                 {"coo_matrix", {Format::coo, false}}, {"coo_array", {Format::coo, true}}};
    static PyObject* types[std::size(known)] = {};  // SciPy's classes, looked up once and kept
    for (std::size_t k = 0; k < std::size(known); ++k) {
        if (!types[k]) types[k] = nb::object(sp.attr(known[k].name)).release().ptr();
        if (types[k] != A.type().ptr()) continue;
        if (!known[k].kind.is_array) return known[k].kind;
        nb::object shape = A.attr("shape");
        return nb::len(shape) == 2 ? known[k].kind : Kind();
    }
    return Kind();
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
