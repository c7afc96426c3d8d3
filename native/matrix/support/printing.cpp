#include "support/printing.hpp"

#include <algorithm>

#include "support/errors.hpp"

namespace taviropy {

using namespace nb::literals;

namespace {

/// `with numpy.printoptions(formatter=formatter):`
class PrintOptions {
  public:
    PrintOptions(nb::handle np, nb::handle formatter)
        : manager_(np.attr("printoptions")("formatter"_a = formatter)) {
        manager_.attr("__enter__")();
    }
    ~PrintOptions() {
        nb::error_scope keep;  // an exception that is on its way
        PyObject* left =
            PyObject_CallMethod(manager_.ptr(), "__exit__", "OOO", Py_None, Py_None, Py_None);
        if (!left) PyErr_Clear();
        Py_XDECREF(left);
    }
    PrintOptions(const PrintOptions&) = delete;
    PrintOptions& operator=(const PrintOptions&) = delete;

  private:
    nb::object manager_;
};

}  // namespace

nb::object array_text(nb::handle array) {
    nb::object text = checked(PyObject_Repr(array.ptr()));
    const Py_ssize_t length = PyUnicode_GET_LENGTH(text.ptr());
    Py_ssize_t end = PyUnicode_FindChar(text.ptr(), ',', 0, length, -1);
    if (end < 0) end = std::max<Py_ssize_t>(length - 1, 0);
    return checked(PyUnicode_Substring(text.ptr(), 0, end)) + nb::str(")");
}

nb::object array_text(nb::handle np, nb::handle array, const char* lead) {
    nb::object show = nb::str(lead) + nb::str("{!s}");
    nb::dict formatter;
    formatter["object"] = nb::getattr(show, "format");
    PrintOptions options(np, formatter);
    return array_text(array);
}

nb::object block_text(const char* name, nb::handle shape, const std::string& marks,
                      nb::handle elements) {
    return checked(
        PyUnicode_FromFormat("<%s %S%s>\n%S", name, shape.ptr(), marks.c_str(), elements.ptr()));
}

}  // namespace taviropy
