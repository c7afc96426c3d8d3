// The scalar expressions, bound at load by their layout.
//
// `LinExpr` and `QuadExpr` are reached through these functions alone; a replacement of
// `taviropy._core.LinExpr` at run time has no effect here. Fields are read and written directly, no
// method of theirs runs.
#pragma once

#include <nanobind/nanobind.h>

#include "base/layouts.hpp"
#include "base/terms.hpp"

namespace taviropy {

namespace nb = nanobind;

using base::check_lengths, base::check_variable, base::read_coefficient;
using base::LinExprObject, base::QuadExprObject;

/// Binds the two types, `_ptr` and nothing else. ImportError where a layout or signature differs.
void bind_core();

PyTypeObject* linexpr_type();
PyTypeObject* quadexpr_type();

inline bool is_linexpr(nb::handle object) {
    return PyObject_TypeCheck(object.ptr(), linexpr_type());
}
inline bool is_quadexpr(nb::handle object) {
    return PyObject_TypeCheck(object.ptr(), quadexpr_type());
}

/// Refuses what is neither: TypeError for another type, AttributeError for None or an empty slot.
[[noreturn]] void refuse_element(PyObject* element, const char* expected);

/// The fields of an element that must be a `LinExpr`.
inline LinExprObject* as_linexpr(PyObject* element) {
    if (!element || !PyObject_TypeCheck(element, linexpr_type()))
        refuse_element(element, "LinExpr");
    return reinterpret_cast<LinExprObject*>(element);
}

/// The fields of an element that must be a `QuadExpr`.
inline QuadExprObject* as_quadexpr(PyObject* element) {
    if (!element || !PyObject_TypeCheck(element, quadexpr_type()))
        refuse_element(element, "QuadExpr");
    return reinterpret_cast<QuadExprObject*>(element);
}

/// New scalar expressions: `LinExpr()`, `LinExpr(a)`, `LinExpr(a, b)` and the same of `QuadExpr`.
template <class... Args>
nb::object new_linexpr(Args&&... args) {
    return nb::handle(reinterpret_cast<PyObject*>(linexpr_type()))(std::forward<Args>(args)...);
}
template <class... Args>
nb::object new_quadexpr(Args&&... args) {
    return nb::handle(reinterpret_cast<PyObject*>(quadexpr_type()))(std::forward<Args>(args)...);
}

/// A `LinExpr` of these fields, made without a call of the type; the lists become its own.
nb::object make_linexpr(double constant, nb::object coeffs, nb::object vars);

/// A `QuadExpr` of these terms, the linear part empty, made in the same way.
nb::object make_quadexpr(nb::list coeffs, nb::list vars1, nb::list vars2);

/// A plain `LinExpr` with nothing outstanding: its methods do what its fields say.
inline bool is_plain_linexpr(PyObject* element) {
    return element && Py_TYPE(element) == linexpr_type() &&
           reinterpret_cast<LinExprObject*>(element)->cont_ref == Py_None;
}

/// A coefficient as stored in a term list; no code of the user runs. TypeError for what is neither
/// a float nor an int.
inline double coefficient(PyObject* stored) {
    double value;
    if (!read_coefficient(stored, value)) throw nb::python_error();
    return value;
}

/// Replaces a field of an expression by an object. The finalizer of what it held may be the user's:
/// the caller holds the expression itself.
inline void set_field(PyObject*& field, nb::object value) {
    PyObject* old = field;
    field = value.release().ptr();
    Py_XDECREF(old);
}

/// list += other, for two lists; `other` may be the list itself.
void extend_list(PyObject* list, PyObject* other);

/// list.append(item)
void append_to_list(PyObject* list, PyObject* item);

/// list(other), for a list
nb::object copy_list(PyObject* other);

/// A LinExpr whose lists match in length; ValueError where they don't.
LinExprObject* with_matching_lists(LinExprObject* le);

/// le += other, field by field: constants added, the terms of `other` behind those of `le`,
/// unmerged. `other.cont_ref` must be None.
void extend_linexpr(LinExprObject* le, LinExprObject* other);

/// The native handle of a model object, through `_ptr`; throws what that raises.
void* model_handle(nb::handle model);

}  // namespace taviropy

/// The one function taken from the solver library: an integer count of a model. Its status is not
/// used.
extern "C" int TVOgetintattr(void* model, const char* name, int* value);
