// The module taviropy._scalars: readies the types in the order in which they need each other.
#include "scalars.hpp"

namespace taviropy {

Types types;
PyObject* float_one;

PyTypeObject* ready_type(PyObject* module, PyType_Spec* spec) {
    Ref type = checked(PyType_FromModuleAndSpec(module, spec, nullptr));
    PyTypeObject* made = reinterpret_cast<PyTypeObject*>(type.get());
    check(PyModule_AddType(module, made));
    type.release();  // kept for good
    return made;
}

namespace {

void execute(PyObject* module) {
    float_one = checked(PyFloat_FromDouble(1.0)).release();
    ready_handles(module);
    ready_linexpr(module);
    ready_quadexpr(module);
    ready_exprtree(module);
    ready_nlexpr(module);
    ready_tempconstr(module);
    ready_modelcore(module);
    ready_rows(module);
    ready_pairs(module);
    ready_trees(module);
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(&Guarded<execute>::call)},
    {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
    {0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "_scalars", "The scalar objects of a model, native.", 0,
    gather_methods,        slots};

}  // namespace

}  // namespace taviropy

PyMODINIT_FUNC PyInit__scalars() { return PyModuleDef_Init(&taviropy::definition); }
