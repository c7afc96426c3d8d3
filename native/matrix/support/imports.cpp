#include "support/imports.hpp"

#include "support/names.hpp"

namespace taviropy {

namespace {

/// A module to be imported, and where it was found completely loaded the last time.
struct Import {
    const char* name;
    PyObject* key = nullptr;
    PyObject* loaded = nullptr;  // only compared with
};

// The import statement in two steps: a module that is loaded already is one dictionary look-up.
nb::object import_module(Import& import) {
    if (!import.key) import.key = PyUnicode_InternFromString(import.name);
    PyObject* found = PyDict_GetItemWithError(PyImport_GetModuleDict(), import.key);
    if (found && found == import.loaded) return nb::borrow(found);
    if (PyErr_Occurred()) PyErr_Clear();
    nb::object module = nb::module_::import_(import.name);
    import.loaded = module.ptr();
    return module;
}

}  // namespace

nb::object import_numpy() {
    static Import import = {"numpy"};
    return import_module(import);
}

nb::object import_sparse() {
    static Import import = {"scipy.sparse"};
    return import_module(import);
}

bool is_ndarray(nb::handle np, nb::handle object) {
    return is_instance(object, np.attr("ndarray"));
}

bool is_sparse(nb::handle sp, nb::handle object) {
    // SciPy's classes are Python classes, so nothing of a static type, such as a number or an
    // ndarray, is sparse; this spares a call of a Python function in most operators.
    if (!PyType_HasFeature(Py_TYPE(object.ptr()), Py_TPFLAGS_HEAPTYPE)) return false;
    return truth(sp.attr("issparse")(object));
}

}  // namespace taviropy
