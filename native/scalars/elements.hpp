// Walking over what the package hands in: objects in arrays or lists, and whole numbers in arrays.
#pragma once

#include <optional>
#include <vector>

#include "base/arrays.hpp"
#include "registry.hpp"

namespace taviropy {

/// The objects of an object array (any strides, C order), of a list or tuple, or a lone object.
class Objects {
  public:
    explicit Objects(PyObject* source);

    Py_ssize_t size() const { return size_; }

    /// Calls visit(place, object) for each object, which is kept alive meanwhile.
    template <class Visit>
    void each(Visit visit) const {
        std::optional<Walker> walker;
        if (buffer_) walker.emplace(*buffer_);
        for (Py_ssize_t k = 0; k < size_; ++k) {
            PyObject* object = walker ? *reinterpret_cast<PyObject**>(walker->next()) : item(k);
            Ref keep = borrow(object ? object : Py_None);
            visit(k, keep.get());
        }
    }

  private:
    PyObject* item(Py_ssize_t k) const;

    PyObject* source_;
    std::optional<Buffer> buffer_;
    Py_ssize_t size_;
};

/// The entries of a one-dimensional array of int32 or int64 (any stride), or of a list of ints.
class Integers {
  public:
    Integers(PyObject* source, const char* what);

    Py_ssize_t size() const {
        return buffer_ ? buffer_->size() : static_cast<Py_ssize_t>(items_.size());
    }

    /// Calls visit(place, value) for each entry.
    template <class Visit>
    void each(Visit visit) const {
        if (!buffer_)
            for (std::size_t k = 0; k < items_.size(); ++k) visit(k, items_[k]);
        else if ((*buffer_)->itemsize == sizeof(int32_t))
            walk<int32_t>(visit);
        else
            walk<int64_t>(visit);
    }

  private:
    template <class Integer, class Visit>
    void walk(Visit visit) const {
        Walker walker(*buffer_);
        for (Py_ssize_t k = 0; k < buffer_->size(); ++k)
            visit(k, static_cast<int64_t>(*reinterpret_cast<const Integer*>(walker.next())));
    }

    std::optional<Buffer> buffer_;
    std::vector<int64_t> items_;
};

/// Ids from an array or a list; IndexError where there are only `known` of them.
std::vector<int32_t> id_list(PyObject* source, Py_ssize_t known);

/// Refuses a handle of another model or of a removed element.
[[noreturn]] void refuse_element(PyObject* model, const HandleObject* handle, Py_ssize_t place);

/// The id of an element, once it is clear that it is one of the model and not removed.
inline int32_t checked_id(PyObject* model, const HandleObject* handle, Py_ssize_t place) {
    if (handle->model != model || registry_of(model, handle->kind).number(handle->id) <= kRemoved)
        refuse_element(model, handle, place);
    return handle->id;
}

/// The same of an object that must be a handle of a kind; a removed one may pass.
int32_t checked_id(PyObject* model, int kind, PyObject* element, Py_ssize_t place,
                   bool removed_pass = false);

/// A model argument of a native function.
PyObject* model_argument(PyObject* object);

}  // namespace taviropy
