// The module taviropy._files: the parts of reading and writing model files that walk over every
// coefficient.
#include "files.hpp"

namespace taviropy {

namespace {

void execute(PyObject* module) {
    check(PyModule_AddFunctions(module, reading_methods));
    check(PyModule_AddFunctions(module, writing_methods));
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(&Guarded<execute>::call)},
    {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
    {0, nullptr},
};

PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                          "_files",
                          "Coefficients of model files as text and as arrays.",
                          0,
                          nullptr,
                          slots};

}  // namespace

}  // namespace taviropy

PyMODINIT_FUNC PyInit__files() { return PyModuleDef_Init(&taviropy::definition); }
