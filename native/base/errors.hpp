// The package's own error.
#pragma once

#include "python.hpp"

namespace taviropy::base {

/// Raises a TaviroError with one of the codes of `TVO.Error`, given by its name.
[[noreturn]] inline void raise_taviro_error(const char* code, const char* format, ...) {
    va_list values;
    va_start(values, format);
    Ref message(PyUnicode_FromFormatV(format, values));
    va_end(values);
    if (!message) throw PythonError();
    Ref constants = import_name("taviropy._tvo", "TVO");
    Ref codes = field(constants.get(), "Error");
    Ref number = field(codes.get(), code);
    Ref error_class = import_name("taviropy._exception", "TaviroError");
    Ref error = checked(
        PyObject_CallFunctionObjArgs(error_class.get(), number.get(), message.get(), nullptr));
    PyErr_SetObject(error_class.get(), error.get());
    throw PythonError();
}

/// Throws the error that is set, with a line below it for who reads it.
[[noreturn]] inline void raise_with_note(PyObject* note) {
    Ref error = checked(PyErr_GetRaisedException());
    Ref added = checked(PyObject_CallMethod(error.get(), "add_note", "O", note));
    PyErr_SetRaisedException(error.release());
    throw PythonError();
}

}  // namespace taviropy::base
