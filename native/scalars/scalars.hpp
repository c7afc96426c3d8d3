// The native types of the scalar objects, and the tests and makers that all files of the core use.
#pragma once

#include <cstdint>
#include <vector>

#include "base/layouts.hpp"
#include "base/python.hpp"

namespace taviropy {

using namespace base;

/// The package's numeric kinds of model elements.
enum ElementKind : int { kVar = 1, kConstr = 2, kQConstr = 4, kGenConstr = 5 };

/// A handle on one element of a model. It never changes: the element's index is looked up in the
/// model by the id, so that updates and removals touch no handle.
struct HandleObject {
    PyObject_HEAD PyObject* model;  ///< ModelCore
    int32_t id;                     ///< place in the order of creation, by kind and model
    int32_t kind;
};

/// What a node of an expression tree does. Those from `exp` on are functions of one child.
enum class Op : int {
    constant,
    var,
    plus,
    minus,
    multiply,
    divide,
    pow,
    square,
    uminus,
    exp,
    log,
    sqrt,
    sin,
    cos,
    tan,
    abs,
};
constexpr int kOps = static_cast<int>(Op::abs) + 1;

/// An immutable node of an expression tree, with its children in line.
struct ExprTreeObject {
    PyObject_VAR_HEAD Op op;
    PyObject* data;         ///< float, Var or None
    PyObject* children[1];  ///< Py_SIZE of them
};

struct NLExprObject {
    PyObject_HEAD PyObject* root;  ///< ExprTreeObject
};

struct TempConstrObject {
    PyObject_HEAD PyObject* lhs;
    PyObject* sense;
    PyObject* rhs;
};

/// The types, made once when the module is loaded and kept for good.
struct Types {
    PyTypeObject *var, *constr, *qconstr, *genconstr;
    PyTypeObject *linexpr, *quadexpr, *nlexpr, *exprtree, *tempconstr, *genexpr;
    PyTypeObject *modelcore, *modelshell, *numbering;
};
extern Types types;

/// The number 1.0, coefficient of a lone variable.
extern PyObject* float_one;

inline bool is_var(PyObject* object) { return Py_IS_TYPE(object, types.var); }
inline bool is_linexpr(PyObject* object) { return PyObject_TypeCheck(object, types.linexpr); }
inline bool is_quadexpr(PyObject* object) { return PyObject_TypeCheck(object, types.quadexpr); }
inline bool is_nlexpr(PyObject* object) { return PyObject_TypeCheck(object, types.nlexpr); }
inline bool is_node(PyObject* object) { return Py_IS_TYPE(object, types.exprtree); }
inline bool is_handle(PyObject* object) {
    PyTypeObject* type = Py_TYPE(object);
    return type == types.var || type == types.constr || type == types.qconstr ||
           type == types.genconstr;
}

inline HandleObject* as_handle(PyObject* object) { return reinterpret_cast<HandleObject*>(object); }
inline LinExprObject* as_linexpr(PyObject* object) {
    return reinterpret_cast<LinExprObject*>(object);
}
inline QuadExprObject* as_quadexpr(PyObject* object) {
    return reinterpret_cast<QuadExprObject*>(object);
}
inline ExprTreeObject* as_node(PyObject* object) {
    return reinterpret_cast<ExprTreeObject*>(object);
}
inline PyObject*& root_of(PyObject* nlexpr) {
    return reinterpret_cast<NLExprObject*>(nlexpr)->root;
}

/// Whether two handles stand for one element.
inline bool same_element(const HandleObject* a, const HandleObject* b) {
    return a->id == b->id && a->model == b->model && a->kind == b->kind;
}
inline bool same_var(PyObject* a, PyObject* b) { return same_element(as_handle(a), as_handle(b)); }

// handle.cpp
Ref new_handle(PyObject* model, ElementKind kind, int32_t id);
PyTypeObject* handle_type(ElementKind kind);
/// What copy.deepcopy makes of a handle: the one on the same element of the model's copy where
/// `memo` knows of one, else the handle itself. That it was asked for is noted: a model that is
/// copied later in the same call finds itself there under its own data's address.
Ref deep_copy(PyObject* handle, PyObject* memo);
/// The same for each Var in a list, in place.
void deep_copy_vars(PyObject* list, PyObject* memo);
/// Index in the model; -1 while it waits for an update, -2 after removal.
int32_t handle_number(const HandleObject* handle);

// linexpr.cpp, quadexpr.cpp, nlexpr.cpp, tempconstr.cpp: makers of new objects
Ref new_linexpr(double constant, Ref coeffs, Ref vars);
Ref new_linexpr();
Ref new_quadexpr(Ref linear, Ref coeffs, Ref vars1, Ref vars2);
Ref new_nlexpr(Ref root);
Ref new_tempconstr(PyObject* lhs, const char* sense, PyObject* rhs);

// exprtree.cpp
/// A node on other nodes; TypeError for a child that is none.
Ref new_node(Op op, PyObject* const* children, Py_ssize_t count);
const char* op_name(Op op);
Ref constant_node(double value);
Ref var_node(PyObject* var);
Ref linexpr_tree(PyObject* linexpr);
Ref quadexpr_tree(PyObject* quadexpr);

// treewalk.cpp
/// The distinct nodes of a tree, children before parents, the root last; all are kept alive by it.
std::vector<ExprTreeObject*> post_order(PyObject* root);
/// The tree for copy.deepcopy: itself where its variables stay the same ones.
Ref deep_copy_of_tree(PyObject* root, PyObject* memo);
/// What an operation on numbers gives.
double apply_operation(Op op, const double* arguments, Py_ssize_t count);
/// The value of a tree at the last solution.
double tree_value(PyObject* root);

// Each file readies its types, in the order of module.cpp.
void ready_handles(PyObject* module);
void ready_linexpr(PyObject* module);
void ready_quadexpr(PyObject* module);
void ready_exprtree(PyObject* module);
void ready_nlexpr(PyObject* module);
void ready_tempconstr(PyObject* module);
void ready_modelcore(PyObject* module);
void ready_rows(PyObject* module);
void ready_pairs(PyObject* module);
void ready_trees(PyObject* module);
extern PyMethodDef gather_methods[];

/// Makes a type of a spec and enters it into the module.
PyTypeObject* ready_type(PyObject* module, PyType_Spec* spec);

}  // namespace taviropy
