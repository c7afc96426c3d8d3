#include "core_interface/scalars.hpp"

#include <cstddef>
#include <string>

#include "support/errors.hpp"

namespace taviropy {

namespace {

PyTypeObject* linexpr = nullptr;
PyTypeObject* quadexpr = nullptr;
void* (*ptr_function)(PyObject*) = nullptr;

constexpr const char* kPtrSignature = "void *(PyObject *)";

struct Field {
    const char* name;
    int kind;
    Py_ssize_t offset;
};

std::string describe(const char* name, int kind, Py_ssize_t offset) {
    const char* type = kind == Py_T_DOUBLE      ? "double "
                       : kind == Py_T_OBJECT_EX ? "object "
                                                : "other ";
    return std::string(type) + name + " at " + std::to_string(offset);
}

/// The layout that this module was built against.
template <std::size_t N>
std::string built_layout(std::size_t size, const Field (&fields)[N]) {
    std::string text = std::to_string(size) + " bytes";
    for (const Field& field : fields) text += ", " + describe(field.name, field.kind, field.offset);
    return text;
}

/// The layout that a type has, read from its size and its member descriptors.
template <std::size_t N>
std::string found_layout(PyTypeObject* type, const Field (&fields)[N]) {
    std::string text = std::to_string(type->tp_basicsize) + " bytes";
    for (const Field& field : fields) {
        nb::object member =
            nb::getattr(nb::handle(reinterpret_cast<PyObject*>(type)), field.name, nb::none());
        if (Py_IS_TYPE(member.ptr(), &PyMemberDescr_Type)) {
            PyMemberDef* def = reinterpret_cast<PyMemberDescrObject*>(member.ptr())->d_member;
            text += ", " + describe(field.name, def->type, def->offset);
        } else {
            text += std::string(", no field ") + field.name;
        }
    }
    return text;
}

template <std::size_t N>
PyTypeObject* bind_type(nb::handle module, const char* name, std::size_t size,
                        const Field (&fields)[N]) {
    nb::object type = nb::getattr(module, name, nb::none());
    std::string wanted = built_layout(size, fields), found = "not a type";
    if (PyType_Check(type.ptr()))
        found = found_layout(reinterpret_cast<PyTypeObject*>(type.ptr()), fields);
    if (found != wanted)
        raise(PyExc_ImportError,
              std::string("taviropy._core.") + name +
                  " has another layout than taviropy._matrixapi was built against: found " + found +
                  "; expected " + wanted + ". Build and install both from one release.");
    return reinterpret_cast<PyTypeObject*>(type.release().ptr());  // kept for good
}

void bind_ptr(nb::handle module) {
    nb::object table = nb::getattr(module, "__pyx_capi__", nb::none());
    nb::object capsule = nb::none();
    if (PyDict_Check(table.ptr()) && table.attr("__contains__")("_ptr").is(nb::handle(Py_True)))
        capsule = table["_ptr"];
    if (!PyCapsule_CheckExact(capsule.ptr()))
        raise(PyExc_ImportError,
              std::string("taviropy._util does not export the native function _ptr; expected its "
                          "signature '") +
                  kPtrSignature + "'. Build and install both modules from one release.");
    const char* signature = PyCapsule_GetName(capsule.ptr());
    if (!PyCapsule_IsValid(capsule.ptr(), kPtrSignature))
        raise(PyExc_ImportError,
              std::string("taviropy._util._ptr has another signature than taviropy._matrixapi was "
                          "built against: found '") +
                  (signature ? signature : "none") + "'; expected '" + kPtrSignature +
                  "'. Build and install both from one release.");
    ptr_function =
        reinterpret_cast<void* (*)(PyObject*)>(PyCapsule_GetPointer(capsule.ptr(), kPtrSignature));
}

}  // namespace

void bind_core() {
    const Field linear[] = {
        {"constant", Py_T_DOUBLE, offsetof(LinExprObject, constant)},
        {"coeffs", Py_T_OBJECT_EX, offsetof(LinExprObject, coeffs)},
        {"vars", Py_T_OBJECT_EX, offsetof(LinExprObject, vars)},
        {"cont_ref", Py_T_OBJECT_EX, offsetof(LinExprObject, cont_ref)},
    };
    const Field quadratic[] = {
        {"linear", Py_T_OBJECT_EX, offsetof(QuadExprObject, linear)},
        {"coeffs", Py_T_OBJECT_EX, offsetof(QuadExprObject, coeffs)},
        {"vars1", Py_T_OBJECT_EX, offsetof(QuadExprObject, vars1)},
        {"vars2", Py_T_OBJECT_EX, offsetof(QuadExprObject, vars2)},
    };
    nb::module_ core = nb::module_::import_("taviropy._core");
    linexpr = bind_type(core, "LinExpr", sizeof(LinExprObject), linear);
    quadexpr = bind_type(core, "QuadExpr", sizeof(QuadExprObject), quadratic);
    bind_ptr(nb::module_::import_("taviropy._util"));
}

PyTypeObject* linexpr_type() { return linexpr; }
PyTypeObject* quadexpr_type() { return quadexpr; }

void refuse_element(PyObject* element, const char* expected) {
    if (!element || element == Py_None)
        raise(PyExc_AttributeError,
              std::string("an element is None; expected a taviropy.") + expected);
    raise(PyExc_TypeError, std::string("an element is of type '") + Py_TYPE(element)->tp_name +
                               "'; expected a taviropy." + expected);
}

nb::object make_linexpr(double constant, nb::object coeffs, nb::object vars) {
    nb::object result = checked(linexpr->tp_alloc(linexpr, 0));
    auto* le = reinterpret_cast<LinExprObject*>(result.ptr());
    le->constant = constant;
    le->coeffs = coeffs.release().ptr();
    le->vars = vars.release().ptr();
    le->cont_ref = Py_NewRef(Py_None);
    return result;
}

nb::object make_quadexpr(nb::list coeffs, nb::list vars1, nb::list vars2) {
    nb::object linear = make_linexpr(0.0, nb::list(), nb::list());
    nb::object result = checked(quadexpr->tp_alloc(quadexpr, 0));
    auto* qe = reinterpret_cast<QuadExprObject*>(result.ptr());
    qe->linear = linear.release().ptr();
    qe->coeffs = coeffs.release().ptr();
    qe->vars1 = vars1.release().ptr();
    qe->vars2 = vars2.release().ptr();
    qe->cont_ref = Py_NewRef(Py_None);
    return result;
}

void extend_list(PyObject* list, PyObject* other) {
    Py_ssize_t size = PyList_GET_SIZE(list);
    check(PyList_SetSlice(list, size, size, other));
}

void append_to_list(PyObject* list, PyObject* item) { check(PyList_Append(list, item)); }

nb::object copy_list(PyObject* other) {
    return checked(PyList_GetSlice(other, 0, PyList_GET_SIZE(other)));
}

LinExprObject* with_matching_lists(LinExprObject* le) {
    if (!check_lengths("LinExpr", le->coeffs, le->vars)) throw nb::python_error();
    return le;
}

void extend_linexpr(LinExprObject* le, LinExprObject* other) {
    le->constant += other->constant;
    extend_list(le->coeffs, other->coeffs);
    extend_list(le->vars, other->vars);
}

void* model_handle(nb::handle model) {
    void* handle = ptr_function(model.ptr());
    if (PyErr_Occurred()) throw nb::python_error();
    return handle;
}

}  // namespace taviropy
