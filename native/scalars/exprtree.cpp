// _ExprTree: the immutable, shared nodes of nonlinear expressions. Nothing here recurses, so that
// chains of any depth can be built and released.
#include <algorithm>

#include "arithmetic.hpp"
#include "terms.hpp"
#include "text.hpp"

namespace taviropy {

namespace {

constexpr const char* kOpNames[kOps] = {
    "constant", "var", "plus", "minus", "multiply", "divide", "pow", "square",
    "uminus",   "exp", "log",  "sqrt",  "sin",      "cos",    "tan", "abs"};
PyObject* op_strings[kOps];  // interned

/// Nodes that wait to be released, linked by their data field: where a node drops the last
/// references to its children, these join the queue and not the C stack.
ExprTreeObject* release_queue = nullptr;
bool releasing = false;

void release_node(ExprTreeObject* node) {
    for (Py_ssize_t k = 0; k < Py_SIZE(node); ++k) Py_XDECREF(node->children[k]);
    PyTypeObject* type = Py_TYPE(node);
    type->tp_free(as_object(node));
    Py_DECREF(type);
}

void ExprTree_dealloc(PyObject* self) {
    ExprTreeObject* node = as_node(self);
    Py_CLEAR(node->data);
    node->data = as_object(release_queue);
    release_queue = node;
    if (releasing) return;
    releasing = true;
    while (release_queue) {
        ExprTreeObject* next = release_queue;
        release_queue = as_node(next->data);
        release_node(next);
    }
    releasing = false;
}

/// A node whose children are still to be filled in.
Ref childless_node(Op op, Ref data, Py_ssize_t count) {
    Ref self(as_object(PyObject_NewVar(ExprTreeObject, types.exprtree, count)));
    if (!self) throw PythonError();
    ExprTreeObject* node = as_node(self.get());
    node->op = op;
    node->data = data.release();
    std::fill_n(node->children, count, nullptr);
    return self;
}

Ref allocate_node(Op op, Ref data, PyObject* const* children, Py_ssize_t count) {
    Ref self = childless_node(op, std::move(data), count);
    for (Py_ssize_t k = 0; k < count; ++k)
        as_node(self.get())->children[k] = Py_NewRef(children[k]);
    return self;
}

/// As where Python code asks a wrong object for the terms that it doesn't have.
[[noreturn]] void refuse_expression(PyObject* object, const char* expected) {
    raise(PyExc_AttributeError, "'%s' object has no terms: expected a %s", Py_TYPE(object)->tp_name,
          expected);
}

PyObject* linexpr_argument(PyObject* object) {
    if (!is_linexpr(object)) refuse_expression(object, "LinExpr");
    return object;
}

PyObject* quadexpr_argument(PyObject* object) {
    if (!is_quadexpr(object)) refuse_expression(object, "QuadExpr");
    return object;
}

// ---- nodes of expressions

void append(PyObject* list, Ref item) { check(PyList_Append(list, item.get())); }

/// coeff * node; the node itself for 1.0.
Ref scaled_node(double coeff, Ref node) {
    if (coeff == 1.0) return node;
    Ref factor = constant_node(coeff);
    PyObject* children[] = {factor.get(), node.get()};
    return new_node(Op::multiply, children, 2);
}

/// How many nodes the terms of a linear expression take, the constant's among them.
Py_ssize_t linear_term_count(const LinearView& view) {
    return view.size + (view.constant != 0.0 ? 1 : 0);
}

/// The node of term k in stored order; the constant stands last.
Ref linear_term(const LinearView& view, Py_ssize_t k) {
    if (k == view.size) return constant_node(view.constant);
    return scaled_node(coefficient(view.coeffs[k]), var_node(as_object(variable(view.vars[k]))));
}

void append_linear_terms(PyObject* list, LinExprObject* linexpr) {
    LinearView view = linear_view(linexpr);
    for (Py_ssize_t k = 0; k < linear_term_count(view); ++k) append(list, linear_term(view, k));
}

Ref product_node(PyObject* var1, PyObject* var2) {
    Ref first = var_node(as_object(variable(var1)));
    if (same_var(var1, as_object(variable(var2)))) {
        PyObject* children[] = {first.get()};
        return new_node(Op::square, children, 1);
    }
    Ref second = var_node(var2);
    PyObject* children[] = {first.get(), second.get()};
    return new_node(Op::multiply, children, 2);
}

Ref linear_terms(PyObject* linexpr) {
    Ref list = empty_list();
    append_linear_terms(list.get(), as_linexpr(linexpr));
    return list;
}

Ref quadratic_terms(PyObject* quadexpr) {
    Ref list = empty_list();
    QuadraticView view = view_of(as_quadexpr(quadexpr));
    for (Py_ssize_t k = 0; k < view.size; ++k)
        append(list.get(), scaled_node(coefficient(view.coeffs[k]),
                                       product_node(view.vars1[k], view.vars2[k])));
    append_linear_terms(list.get(), linear_part(as_quadexpr(quadexpr)));
    return list;
}

/// The sum of terms: the term itself where there is one, 0.0 where there is none.
Ref sum_of(const Ref& terms) {
    Py_ssize_t count = PyList_GET_SIZE(terms.get());
    if (count == 0) return constant_node(0.0);
    PyObject** nodes = PySequence_Fast_ITEMS(terms.get());
    return count == 1 ? borrow(nodes[0]) : new_node(Op::plus, nodes, count);
}

// ---- static methods

Ref ExprTree_from_constant(PyObject*, PyObject* number) {
    return constant_node(float_value(number));
}

Ref ExprTree_from_var(PyObject*, PyObject* var) {
    if (!is_var(var)) raise(PyExc_TypeError, "Not a variable: '%s'", Py_TYPE(var)->tp_name);
    return var_node(var);
}

Ref ExprTree_from_linexpr(PyObject*, PyObject* linexpr) {
    return linexpr_tree(linexpr_argument(linexpr));
}

Ref ExprTree_from_quad_expr(PyObject*, PyObject* quadexpr) {
    return quadexpr_tree(quadexpr_argument(quadexpr));
}

Ref ExprTree_linexpr_terms(PyObject*, PyObject* linexpr) {
    return linear_terms(linexpr_argument(linexpr));
}

Ref ExprTree_quadexpr_terms(PyObject*, PyObject* quadexpr) {
    return quadratic_terms(quadexpr_argument(quadexpr));
}

Ref ExprTree_from_plus(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    return new_node(Op::plus, args, nargs);
}

template <Op op, Py_ssize_t count>
Ref ExprTree_from_nodes(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count(op_name(op), nargs, count, count);
    return new_node(op, args, nargs);
}

Ref ExprTree_from_function(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("_from_function", nargs, 2, 2);
    for (int k = static_cast<int>(Op::exp); k < kOps; ++k)
        if (PyUnicode_Check(args[0]) && PyUnicode_CompareWithASCIIString(args[0], kOpNames[k]) == 0)
            return new_node(static_cast<Op>(k), args + 1, 1);
    raise(PyExc_ValueError,
          "there is no function %R: expected one of exp, log, sqrt, sin, cos, tan, abs", args[0]);
}

// ---- methods and fields

Ref ExprTree_str(PyObject* self) { return tree_text(self); }

Ref ExprTree_repr(PyObject* self) {
    Ref text = tree_text(self);
    return checked(PyUnicode_FromFormat("<_ExprTree: %U>", text.get()));
}

Ref ExprTree_op(PyObject* self, void*) {
    return borrow(op_strings[static_cast<int>(as_node(self)->op)]);
}

Ref ExprTree_data(PyObject* self, void*) { return borrow(as_node(self)->data); }

Ref ExprTree_children(PyObject* self, void*) {
    ExprTreeObject* node = as_node(self);
    Ref children = checked(PyTuple_New(Py_SIZE(node)));
    for (Py_ssize_t k = 0; k < Py_SIZE(node); ++k)
        PyTuple_SET_ITEM(children.get(), k, Py_NewRef(node->children[k]));
    return children;
}

template <Op op, Py_ssize_t count>
PyMethodDef node_maker(const char* name, const char* doc) {
    return {name, method<ExprTree_from_nodes<op, count>>(), METH_FASTCALL | METH_STATIC, doc};
}

PyMethodDef methods[] = {
    {"_from_constant", method<ExprTree_from_constant>(), METH_O | METH_STATIC,
     R"(_from_constant(number, /)
--

A constant node; its data is float(number).)"},
    {"_from_var", method<ExprTree_from_var>(), METH_O | METH_STATIC,
     R"(_from_var(var, /)
--

A variable node.)"},
    {"_from_linexpr", method<ExprTree_from_linexpr>(), METH_O | METH_STATIC,
     R"(_from_linexpr(linexpr, /)
--

The tree of a LinExpr: its single term, 0.0 where there is none, else their sum.)"},
    {"_from_quad_expr", method<ExprTree_from_quad_expr>(), METH_O | METH_STATIC,
     R"(_from_quad_expr(quadexpr, /)
--

The tree of a QuadExpr, as _from_linexpr does it.)"},
    {"_linexpr_terms", method<ExprTree_linexpr_terms>(), METH_O | METH_STATIC,
     R"(_linexpr_terms(linexpr, /)
--

A list of nodes, one a term in stored order, then the constant where it isn't 0.0.)"},
    {"_quadexpr_terms", method<ExprTree_quadexpr_terms>(), METH_O | METH_STATIC,
     R"(_quadexpr_terms(quadexpr, /)
--

A list of nodes, one a quadratic term in stored order, then those of the linear part.)"},
    {"_from_plus", method<ExprTree_from_plus>(), METH_FASTCALL | METH_STATIC,
     R"(_from_plus(*nodes)
--

A sum node on any number of nodes.)"},
    node_maker<Op::minus, 2>("_from_minus", R"(_from_minus(left, right, /)
--

A difference.)"),
    node_maker<Op::multiply, 2>("_from_multiply",
                                R"(_from_multiply(left, right, /)
--

A product.)"),
    node_maker<Op::divide, 2>("_from_divide", R"(_from_divide(left, right, /)
--

A quotient.)"),
    node_maker<Op::pow, 2>("_from_pow", R"(_from_pow(base, exponent, /)
--

A power.)"),
    node_maker<Op::square, 1>("_from_square", R"(_from_square(node, /)
--

A square.)"),
    node_maker<Op::uminus, 1>("_from_uminus", R"(_from_uminus(node, /)
--

A negation.)"),
    {"_from_function", method<ExprTree_from_function>(), METH_FASTCALL | METH_STATIC,
     R"(_from_function(name, node, /)
--

A function node; name is one of exp, log, sqrt, sin, cos, tan, abs, and becomes its op.)"},
    {nullptr},
};

PyGetSetDef getset[] = {
    {"op", reinterpret_cast<getter>(&Guarded<ExprTree_op>::call), nullptr,
     "What the node does: \"constant\", \"var\", \"plus\", ..., or the name of a function.",
     nullptr},
    {"data", reinterpret_cast<getter>(&Guarded<ExprTree_data>::call), nullptr,
     "The number of a constant node, the Var of a variable node, else None.", nullptr},
    {"children", reinterpret_cast<getter>(&Guarded<ExprTree_children>::call), nullptr,
     "A tuple of the nodes it works on.", nullptr},
    {nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char*>("A node of an expression tree, immutable and shared. Made by its "
                                  "static methods.")},
    {Py_tp_dealloc, reinterpret_cast<void*>(ExprTree_dealloc)},
    {Py_tp_repr, slot<ExprTree_repr>()},
    {Py_tp_str, slot<ExprTree_str>()},
    {Py_tp_methods, methods},
    {Py_tp_getset, getset},
    {0, nullptr},
};

PyType_Spec spec = {"taviropy._core._ExprTree", offsetof(ExprTreeObject, children),
                    sizeof(PyObject*), Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION,
                    slots};

}  // namespace

const char* op_name(Op op) { return kOpNames[static_cast<int>(op)]; }

Ref new_node(Op op, PyObject* const* children, Py_ssize_t count) {
    for (Py_ssize_t k = 0; k < count; ++k)
        if (!is_node(children[k]))
            raise(PyExc_TypeError, "Not a tree node: '%s'", Py_TYPE(children[k])->tp_name);
    return allocate_node(op, none(), children, count);
}

Ref constant_node(double value) {
    Ref number = value == 1.0 ? borrow(float_one) : float_object(value);
    return allocate_node(Op::constant, std::move(number), nullptr, 0);
}

Ref var_node(PyObject* var) { return allocate_node(Op::var, borrow(var), nullptr, 0); }

Ref linexpr_tree(PyObject* linexpr) {
    LinearView view = linear_view(as_linexpr(linexpr));
    Py_ssize_t count = linear_term_count(view);
    if (count == 0) return constant_node(0.0);
    if (count == 1) return linear_term(view, 0);
    Ref sum = childless_node(Op::plus, none(), count);
    for (Py_ssize_t k = 0; k < count; ++k)
        as_node(sum.get())->children[k] = linear_term(view, k).release();
    return sum;
}

Ref quadexpr_tree(PyObject* quadexpr) { return sum_of(quadratic_terms(quadexpr)); }

void ready_exprtree(PyObject* module) {
    for (int k = 0; k < kOps; ++k)
        op_strings[k] = checked(PyUnicode_InternFromString(kOpNames[k])).release();
    types.exprtree = ready_type(module, &spec);
}

}  // namespace taviropy
