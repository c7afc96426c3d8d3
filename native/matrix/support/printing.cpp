#include "support/printing.hpp"

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

std::string array_text(nb::handle np, nb::handle array, const char* lead) {
    nb::object show = nb::cpp_function(
        [lead](nb::handle element) {
            std::string text = lead + text_of(element);
            return nb::str(text.c_str(), text.size());
        },
        nb::arg().none());
    nb::dict formatter;
    formatter["object"] = show;
    PrintOptions options(np, formatter);
    nb::object shown = checked(PyObject_Repr(array.ptr()));
    std::string text = text_of(shown);
    auto comma = text.rfind(',');
    text.erase(comma == std::string::npos ? text.size() - 1 : comma);
    return text + ')';
}

}  // namespace taviropy
