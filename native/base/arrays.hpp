// NumPy arrays without NumPy's headers: made by calls, read and filled through the buffer protocol.
#pragma once

#include "python.hpp"

namespace taviropy::base {

/// A buffer of an array, released when it goes out of scope.
class Buffer {
  public:
    Buffer() = default;
    Buffer(PyObject* array, int flags) { check(PyObject_GetBuffer(array, &view_, flags)); }
    ~Buffer() { release(); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    /// False, with no exception set, where the array doesn't offer such a buffer.
    bool acquire(PyObject* array, int flags) {
        release();
        if (PyObject_GetBuffer(array, &view_, flags) == 0) return true;
        PyErr_Clear();
        view_.obj = nullptr;
        return false;
    }
    void release() {
        if (view_.obj) PyBuffer_Release(&view_);
        view_.obj = nullptr;
    }

    const Py_buffer* operator->() const { return &view_; }
    const Py_buffer& operator*() const { return view_; }
    /// Whether the items are of a native type, by its letter: 'd' for doubles, 'O' for references.
    bool holds(char letter) const {
        const char* format = view_.format ? view_.format : "B";
        return format[0] == letter && format[1] == '\0';
    }
    Py_ssize_t size() const { return view_.len / view_.itemsize; }

  private:
    Py_buffer view_{};
};

/// The addresses of the items of a strided buffer in C order.
class Walker {
  public:
    explicit Walker(const Buffer& buffer) : view_(*buffer) {
        address_ = static_cast<char*>(view_.buf);
        inner_ = view_.ndim ? view_.shape[view_.ndim - 1] : 1;
        step_ = view_.ndim ? view_.strides[view_.ndim - 1] : 0;
        for (int d = 0; d < view_.ndim; ++d) position_[d] = 0;
    }

    /// The address of the next item; to be called once an item.
    char* next() {
        char* current = address_ + done_ * step_;
        if (++done_ == inner_) next_line();
        return current;
    }

  private:
    void next_line() {
        done_ = 0;
        for (int d = view_.ndim - 2; d >= 0; --d) {
            address_ += view_.strides[d];
            if (++position_[d] < view_.shape[d]) return;
            address_ -= position_[d] * view_.strides[d];
            position_[d] = 0;
        }
    }

    const Py_buffer& view_;
    char* address_;
    Py_ssize_t inner_, step_, done_ = 0;
    Py_ssize_t position_[64];
};

/// The type numpy.ndarray, or nullptr where NumPy is not loaded: then nothing is an array.
inline PyTypeObject* loaded_ndarray_type() {
    static PyTypeObject* type = nullptr;
    if (type) return type;
    Ref name = checked(PyUnicode_FromString("numpy"));
    Ref numpy(PyImport_GetModule(name.get()));
    Ref found(numpy ? PyObject_GetAttrString(numpy.get(), "ndarray") : nullptr);
    if (!found) {
        PyErr_Clear();
        return nullptr;
    }
    if (PyType_Check(found.get())) type = reinterpret_cast<PyTypeObject*>(found.release());
    return type;
}

inline bool is_ndarray(PyObject* object) {
    PyTypeObject* type = loaded_ndarray_type();
    return type && PyObject_TypeCheck(object, type);
}

/// The kind character of an array's dtype, as 'O' or 'f'.
inline char dtype_kind(PyObject* array) {
    Ref dtype = field(array, "dtype");
    Ref kind = field(dtype.get(), "kind");
    const char* text = PyUnicode_AsUTF8(kind.get());
    if (!text) throw PythonError();
    return text[0];
}

inline long dimensions(PyObject* array) {
    Ref ndim = checked(PyObject_GetAttrString(array, "ndim"));
    return PyLong_AsLong(ndim.get());
}

/// A new array of a shape; the dtype is one of NumPy's names, as "int32" or "object".
inline Ref new_array(const char* dtype, PyObject* shape) {
    static PyObject* empty = nullptr;
    if (!empty) empty = import_name("numpy", "empty").release();
    Ref name = checked(PyUnicode_InternFromString(dtype));
    PyObject* args[] = {shape, name.get()};
    return checked(PyObject_Vectorcall(empty, args, 2, nullptr));
}

inline Ref new_array(const char* dtype, Py_ssize_t size) {
    Ref shape = checked(PyLong_FromSsize_t(size));
    return new_array(dtype, shape.get());
}

/// A new one-dimensional array and the memory to fill it.
template <class Item>
struct FilledArray {
    FilledArray(const char* dtype, Py_ssize_t size)
        : array(new_array(dtype, size)),
          buffer(array.get(), PyBUF_CONTIG),
          items(static_cast<Item*>(buffer->buf)) {}

    Ref array;
    Buffer buffer;
    Item* items;
};

}  // namespace taviropy::base
