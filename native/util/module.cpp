// The module taviropy._util, and the function it exports to other native modules.
#include "base/python.hpp"
#include "util.hpp"

namespace taviropy {

namespace {

constexpr const char* kPtrSignature = "void *(PyObject *)";
constexpr const char* kHandleName = "TVOmodel";

/// The native handle of a model.
void* model_pointer(PyObject* model) {
    static LazyModule scalars("taviropy._scalars");
    Ref data_of = scalars.get("data_of");
    Ref data = checked(PyObject_CallOneArg(data_of.get(), model));
    Ref handle = field(data.get(), "handle");
    if (!PyCapsule_IsValid(handle.get(), kHandleName))
        raise(PyExc_TypeError, "expected a Model, not '%s'", Py_TYPE(model)->tp_name);
    return PyCapsule_GetPointer(handle.get(), kHandleName);
}

/// As exported: NULL with an exception where there is no handle.
void* ptr(PyObject* model) {
    try {
        return model_pointer(model);
    } catch (...) {
        translate_exception();
        return nullptr;
    }
}

void execute(PyObject* module) {
    check(PyModule_AddFunctions(module, shape_methods));
    check(PyModule_AddFunctions(module, kernel_methods));
    Ref capsule = checked(PyCapsule_New(reinterpret_cast<void*>(ptr), kPtrSignature, nullptr));
    Ref table = checked(PyDict_New());
    check(PyDict_SetItemString(table.get(), "_ptr", capsule.get()));
    check(PyModule_AddObjectRef(module, "__pyx_capi__", table.get()));
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(&Guarded<execute>::call)},
    {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
    {0, nullptr},
};

PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                          "_util",
                          "Shape rules, matrix product kernels and the native handle of a model.",
                          0,
                          nullptr,
                          slots};

}  // namespace

}  // namespace taviropy

PyMODINIT_FUNC PyInit__util() { return PyModuleDef_Init(&taviropy::definition); }
