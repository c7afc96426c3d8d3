// The module `taviropy._matrixapi`: its import sequence and its namespace, in order; nothing else.

#include <nanobind/nanobind.h>

#include <initializer_list>

#include "core_interface/scalars.hpp"
#include "support/names.hpp"
#include "units.hpp"

namespace nb = nanobind;

namespace {

/// from <source> import <names>
void import_names(nb::module_ module, const char* source,
                  std::initializer_list<const char*> names) {
    nb::module_ from = nb::module_::import_(source);
    for (const char* name : names) {
        if (!nb::hasattr(from, name)) {
            PyErr_Format(PyExc_ImportError, "cannot import name '%s' from '%s'", name, source);
            throw nb::python_error();
        }
        nb::setattr(module, name, from.attr(name));
    }
}

/// Takes a name out of the namespace; what it stood for lives on, as long as the process.
void keep_out_of_sight(nb::module_ module, const char* name) {
    if (!nb::hasattr(module, name)) return;
    nb::object(module.attr(name)).release();
    nb::delattr(module, name);
}

}  // namespace

static void fill(nb::module_ module) {
    taviropy::bind_core();
    taviropy::set_namespace(module);

    module.attr("itertools") = nb::module_::import_("itertools");
    import_names(module, "collections.abc", {"Iterable"});
    import_names(
        module, "taviropy._attrutil",
        {"_attrlist", "_getattrinfo", "_gettypedattrlist", "_prefetchattr", "_settypedattrlist"});
    import_names(module, "taviropy._core",
                 {"Constr", "GenConstr", "QConstr", "TempConstr", "Var", "GenExpr", "NLExpr",
                  "_ExprTree", "TempConstr"});
    import_names(module, "taviropy._exception", {"TaviroError"});
    import_names(module, "taviropy._tvo", {"TVO"});
    import_names(module, "taviropy._util",
                 {"_all_refs_match", "_axis_to_axeslist", "_broadcast_shapes", "_isscalar",
                  "_isstr", "_matmul_shape", "_dense_matmul_kernel", "_sparse_right_matmul_kernel",
                  "_sparse_left_matmul_kernel"});

    taviropy::define_mvar(module);
    taviropy::define_mlinexpr(module);
    taviropy::define_mquadexpr(module);
    taviropy::define_constraints(module);
    taviropy::define_mfunctions(module);
    taviropy::define_mnlexpr(module);
    module.attr("__test__") = nb::dict();
    keep_out_of_sight(module, "__nanobind_internals__");
}

// Written out, because NB_MODULE hides the error of a failed import behind one of its own.
static int execute(PyObject* module) {
    if (!nb::register_module(module)) return -1;
    try {
        fill(nb::borrow<nb::module_>(module));
        return 0;
    } catch (nb::python_error& error) {
        error.restore();
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_ImportError, error.what());
    }
    return -1;
}

extern "C" NB_EXPORT PyObject* PyInit__matrixapi() {
    static PyModuleDef_Slot slots[] = {
        {Py_mod_exec, reinterpret_cast<void*>(execute)},
        {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
        {0, nullptr}};
    static PyModuleDef definition = {
        .m_base = PyModuleDef_HEAD_INIT, .m_name = "_matrixapi", .m_slots = slots};
    return PyModuleDef_Init(&definition);
}
