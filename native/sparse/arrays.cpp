#include "arrays.hpp"

#include <cstring>

namespace taviropy::sparse {

using namespace base;

namespace {

constexpr int kContiguous = PyBUF_C_CONTIGUOUS | PyBUF_FORMAT;

bool holds_index(const Buffer& view) {
    return view.holds('i') || ((view.holds('l') || view.holds('q')) && view->itemsize == 8);
}

/// numpy.asarray or numpy.array of an array, in C order.
Ref converted(const char* function, PyObject* array, const char* dtype) {
    static LazyModule numpy("numpy");
    Ref maker = numpy.get(function);
    Ref args = checked(PyTuple_Pack(1, array));
    Ref kwargs =
        checked(Py_BuildValue("{sNss}", "dtype", numpy.get(dtype).release(), "order", "C"));
    return checked(PyObject_Call(maker.get(), args.get(), kwargs.get()));
}

/// An array as one of NumPy's own class: the very array, or its elements where the class is derived
/// and may have rules of its own.
Ref plain_array(PyObject* array) {
    if (Py_TYPE(array) == loaded_ndarray_type()) return borrow(array);
    static LazyModule numpy("numpy");
    return checked(PyObject_CallOneArg(numpy.get("asarray").get(), array));
}

}  // namespace

bool is_real_format(const Buffer& view) {
    const char* format = view->format;
    return format && std::strlen(format) == 1 && std::strchr("?bBhHiIlLqQfd", *format);
}

bool IndexArray::acquire(PyObject* array) {
    if (!is_ndarray(array)) return false;
    array_ = plain_array(array);
    copy_ = Ref();
    if (!view_.acquire(array_.get(), kContiguous) || !holds_index(view_)) {
        view_.release();
        const char kind = dtype_kind(array_.get());
        if (kind != 'i' && kind != 'u') return false;
        copy_ = converted("array", array_.get(), "int64");
        if (!view_.acquire(copy_.get(), kContiguous)) return false;
    }
    wide_ = view_->itemsize == 8;
    return true;
}

void IndexArray::widen() {
    if (wide_) return;
    Ref wide = converted("array", array_.get(), "int64");
    view_.acquire(wide.get(), kContiguous);
    copy_ = std::move(wide);
    wide_ = true;
}

void IndexArray::unify(IndexArray& a, IndexArray& b) {
    if (a.wide_ == b.wide_) return;
    a.widen();
    b.widen();
}

bool DataArray::acquire(PyObject* array) {
    if (!is_ndarray(array)) return false;
    array_ = plain_array(array);
    copy_ = Ref();
    const bool contiguous = view_.acquire(array_.get(), kContiguous);
    if (contiguous || view_.acquire(array_.get(), PyBUF_STRIDES | PyBUF_FORMAT)) {
        ndim_ = view_->ndim;
        length_ = ndim_ > 0 ? view_->shape[0] : 1;
        real_ = is_real_format(view_);
        double_ = contiguous && view_.holds('d');
        return true;
    }
    // A dtype that no buffer can tell, such as datetime64.
    Ref shape = field(array_.get(), "shape");
    ndim_ = static_cast<int>(PyTuple_Size(shape.get()));
    length_ = ndim_ > 0 ? extent(0) : 1;
    return true;
}

Py_ssize_t DataArray::extent(int axis) const {
    Ref shape = field(array_.get(), "shape");
    PyObject* length = PyTuple_GetItem(shape.get(), axis);
    if (!length) throw PythonError();
    return PyLong_AsSsize_t(length);
}

const double* DataArray::doubles() {
    if (!double_) {
        Ref copy = converted("asarray", array_.get(), "float64");
        if (!view_.acquire(copy.get(), kContiguous))
            raise(PyExc_TypeError, "the values of a sparse matrix could not be read as float64");
        copy_ = std::move(copy);
    }
    return static_cast<const double*>(view_->buf);
}

}  // namespace taviropy::sparse
