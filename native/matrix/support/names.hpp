// Names of the module's namespace, looked up afresh at each use.
//
// Replacing `_matrixapi._isscalar` at run time therefore has effect, and the classes may mention
// each other whatever the order in which they are created.
#pragma once

#include <nanobind/nanobind.h>

namespace taviropy {

namespace nb = nanobind;

/// The namespace in which names are looked up; set once, when the module is imported.
void set_namespace(nb::module_ module);
nb::handle namespace_dict();

/// A module-level name. Calling it gives what the name stands for at this moment: the entry of the
/// module's namespace, else of builtins, else NameError.
class Name {
  public:
    constexpr explicit Name(const char* text) : text_(text) {}
    nb::object operator()() const;

  private:
    const char* text_;
    mutable PyObject* key_ = nullptr;
};

namespace names {
#define TAVIROPY_NAME(name) inline const Name name{#name};
TAVIROPY_NAME(Iterable)
TAVIROPY_NAME(_attrlist)
TAVIROPY_NAME(_getattrinfo)
TAVIROPY_NAME(_gettypedattrlist)
TAVIROPY_NAME(_prefetchattr)
TAVIROPY_NAME(_settypedattrlist)
TAVIROPY_NAME(Constr)
TAVIROPY_NAME(GenConstr)
TAVIROPY_NAME(QConstr)
TAVIROPY_NAME(TempConstr)
TAVIROPY_NAME(Var)
TAVIROPY_NAME(NLExpr)
TAVIROPY_NAME(_ExprTree)
TAVIROPY_NAME(TaviroError)
TAVIROPY_NAME(TVO)
TAVIROPY_NAME(_all_refs_match)
TAVIROPY_NAME(_axis_to_axeslist)
TAVIROPY_NAME(_broadcast_shapes)
TAVIROPY_NAME(_isscalar)
TAVIROPY_NAME(_isstr)
TAVIROPY_NAME(_matmul_shape)
TAVIROPY_NAME(_dense_matmul_kernel)
TAVIROPY_NAME(_sparse_right_matmul_kernel)
TAVIROPY_NAME(_sparse_left_matmul_kernel)
TAVIROPY_NAME(MVar)
TAVIROPY_NAME(MLinExpr)
TAVIROPY_NAME(MQuadExpr)
TAVIROPY_NAME(MConstr)
TAVIROPY_NAME(MQConstr)
TAVIROPY_NAME(MGenConstr)
TAVIROPY_NAME(MNLExpr)
TAVIROPY_NAME(_copy_learr)
TAVIROPY_NAME(_copy_learr_qearr)
TAVIROPY_NAME(_apply_array_manipulation_routine)
#undef TAVIROPY_NAME
}  // namespace names

/// Notes a class whose instances have no `__class__` of their own.
void note_plain_class(nb::handle cls);

/// Whether the type of an object tells all that isinstance looks at.
bool is_plain(PyTypeObject* type);

/// isinstance(object, type), errors of a metaclass included.
inline bool is_instance(nb::handle object, nb::handle type) {
    PyTypeObject* own = Py_TYPE(object.ptr());
    if (reinterpret_cast<PyObject*>(own) == type.ptr()) return true;
    // Most operators ask half a dozen classes before the right one; a no is to be cheap.
    if (PyType_CheckExact(type.ptr()) && is_plain(own))
        return PyType_IsSubtype(own, reinterpret_cast<PyTypeObject*>(type.ptr()));
    int result = PyObject_IsInstance(object.ptr(), type.ptr());
    if (result < 0) throw nb::python_error();
    return result == 1;
}

/// isinstance(object, (first, ...)), the names being looked up one after the other as needed.
template <class... Names>
bool is_a(nb::handle object, const Names&... types) {
    return (is_instance(object, types()) || ...);
}

/// The truth of an object, as `if object:` takes it.
inline bool truth(nb::handle object) {
    if (object.ptr() == Py_True) return true;
    if (object.ptr() == Py_False) return false;
    int result = PyObject_IsTrue(object.ptr());
    if (result < 0) throw nb::python_error();
    return result == 1;
}

/// A number as a native double, as float() converts it.
inline double as_double(nb::handle number) {
    double value = PyFloat_AsDouble(number.ptr());
    if (value == -1.0 && PyErr_Occurred()) throw nb::python_error();
    return value;
}

/// `_isscalar(object)`: Python and NumPy numbers.
inline bool is_scalar(nb::handle object) { return truth(names::_isscalar()(object)); }

}  // namespace taviropy
