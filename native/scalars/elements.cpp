#include "elements.hpp"

#include "arithmetic.hpp"
#include "attributes.hpp"
#include "registry.hpp"

namespace taviropy {

Objects::Objects(PyObject* source) : source_(source) {
    if (PyList_Check(source) || PyTuple_Check(source)) {
        size_ = PySequence_Fast_GET_SIZE(source);
        return;
    }
    if (!is_ndarray(source)) {
        size_ = 1;
        return;
    }
    buffer_.emplace(source, PyBUF_RECORDS_RO);
    if (!buffer_->holds('O'))
        raise(PyExc_TypeError,
              "an array of the buffer format '%s' holds no objects; expected dtype object",
              (*buffer_)->format);
    size_ = buffer_->size();
}

PyObject* Objects::item(Py_ssize_t k) const {
    if (!PyList_Check(source_) && !PyTuple_Check(source_)) return source_;
    if (k >= PySequence_Fast_GET_SIZE(source_))
        raise(PyExc_RuntimeError, "a list changed its size while it was read");
    return PySequence_Fast_GET_ITEM(source_, k);
}

Integers::Integers(PyObject* source, const char* what) {
    if (is_ndarray(source)) {
        buffer_.emplace(source, PyBUF_RECORDS_RO);
        if ((*buffer_)->ndim != 1)
            raise(PyExc_ValueError, "%s has %d dimensions; expected 1", what, (*buffer_)->ndim);
        if (buffer_->holds('i') || buffer_->holds('l') || buffer_->holds('q')) return;
        raise(PyExc_TypeError,
              "%s has entries of the buffer format '%s'; expected int32 or int64, as "
              "astype(numpy.int64) gives",
              what, (*buffer_)->format);
    }
    Ref items = tuple_of(source);
    for (Py_ssize_t k = 0; k < PyTuple_GET_SIZE(items.get()); ++k) {
        Ref index = checked(PyNumber_Index(PyTuple_GET_ITEM(items.get(), k)));
        long long value = checked(PyLong_AsLongLong(index.get()));
        items_.push_back(value);
    }
}

std::vector<int32_t> id_list(PyObject* source, Py_ssize_t known) {
    Integers given(source, "the array of ids");
    std::vector<int32_t> ids;
    ids.reserve(given.size());
    given.each([&](Py_ssize_t, int64_t id) {
        if (id < 0 || id >= known)
            raise(PyExc_IndexError, "no element has the id %lld: there are %zd",
                  static_cast<long long>(id), known);
        ids.push_back(static_cast<int32_t>(id));
    });
    return ids;
}

int32_t checked_id(PyObject* model, int kind, PyObject* element, Py_ssize_t place,
                   bool removed_pass) {
    PyTypeObject* wanted = handle_type(static_cast<ElementKind>(kind));
    if (!Py_IS_TYPE(element, wanted))
        raise(PyExc_TypeError, "element %zd is of type '%s'; expected '%s'", place,
              Py_TYPE(element)->tp_name, wanted->tp_name);
    const HandleObject* handle = as_handle(element);
    if (removed_pass && handle->model == model) return handle->id;
    return checked_id(model, handle, place);
}

void refuse_element(PyObject* model, const HandleObject* handle, Py_ssize_t place) {
    const char* kind = kind_name(handle->kind);
    Ref name = element_name(const_cast<HandleObject*>(handle));
    if (handle->model != model)
        raise_taviro_error("ERROR_INVALID_ARGUMENT",
                           "%s '%U' (element %zd) belongs to another model: elements of one model "
                           "alone can stand in a constraint or call",
                           kind, name.get(), place);
    raise_taviro_error("NOT_IN_MODEL",
                       "%s '%U' (element %zd) was removed from the model: leave it out", kind,
                       name.get(), place);
}

PyObject* model_argument(PyObject* object) {
    if (!is_model_core(object))
        raise(PyExc_TypeError, "expected a ModelCore, not '%s'", Py_TYPE(object)->tp_name);
    return object;
}

}  // namespace taviropy
