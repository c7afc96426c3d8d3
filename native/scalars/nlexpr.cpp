// NLExpr: a nonlinear expression, a wrapper of the root of its tree.
#include "arithmetic.hpp"
#include "terms.hpp"
#include "text.hpp"

namespace taviropy {

namespace {

PyObject* node_argument(PyObject* object) {
    if (!is_node(object))
        raise(PyExc_TypeError, "_root must be a tree node, not '%s'", Py_TYPE(object)->tp_name);
    return object;
}

/// A root for a constructor argument: a node, or whatever has a tree.
Ref root_from(PyObject* source) {
    return is_node(source) ? borrow(source) : tree_of(classify(source));
}

// ---- construction

Ref NLExpr_new(PyTypeObject* type, PyObject* args, PyObject* kwargs) {
    if (kwargs && PyDict_GET_SIZE(kwargs) && type == types.nlexpr)
        raise(PyExc_TypeError, "NLExpr() takes no keyword arguments");
    check_count("NLExpr", PyTuple_GET_SIZE(args), 1, 1);
    Ref root = root_from(PyTuple_GET_ITEM(args, 0));
    Ref self = checked(type->tp_alloc(type, 0));
    root_of(self.get()) = root.release();
    return self;
}

Ref NLExpr_vectorcall(PyObject*, PyObject* const* args, size_t nargsf, PyObject* kwnames) {
    if (kwnames && PyTuple_GET_SIZE(kwnames))
        raise(PyExc_TypeError, "NLExpr() takes no keyword arguments");
    check_count("NLExpr", PyVectorcall_NARGS(nargsf), 1, 1);
    return new_nlexpr(root_from(args[0]));
}

void NLExpr_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    Py_XDECREF(root_of(self));
    type->tp_free(self);
    Py_DECREF(type);
}

// ---- in-place operators: the root is replaced

void set_root(PyObject* self, Ref root) { Py_SETREF(root_of(self), root.release()); }

Ref operate_inplace(Op op, PyObject* self, PyObject* other) {
    Operand operand = classify(other);
    if (operand.kind == OperandKind::other) return not_implemented();
    Ref right = tree_of(operand);
    PyObject* children[] = {root_of(self), right.get()};
    set_root(self, new_node(op, children, 2));
    return borrow(self);
}

template <Op op>
Ref NLExpr_inplace(PyObject* self, PyObject* other) {
    return operate_inplace(op, self, other);
}

Ref NLExpr_ipow(PyObject* self, PyObject* other, PyObject* modulus) {
    if (modulus != Py_None) return not_implemented();
    Operand operand = classify(other);
    if (operand.kind != OperandKind::number || operand.number != 2.0)
        return operate_inplace(Op::pow, self, other);
    set_root(self, new_node(Op::square, &root_of(self), 1));
    return borrow(self);
}

// ---- static methods

Ref NLExpr_from_constant(PyObject*, PyObject* number) {
    return new_nlexpr(constant_node(float_value(number)));
}

Ref NLExpr_from_var(PyObject*, PyObject* var) {
    if (!is_var(var)) raise(PyExc_TypeError, "Not a variable: '%s'", Py_TYPE(var)->tp_name);
    return new_nlexpr(var_node(var));
}

Ref NLExpr_from_plus(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    std::vector<PyObject*> roots;
    for (Py_ssize_t k = 0; k < nargs; ++k) {
        if (!is_nlexpr(args[k]))
            raise(PyExc_TypeError, "argument %zd is of type '%s'; expected an NLExpr", k,
                  Py_TYPE(args[k])->tp_name);
        roots.push_back(root_of(args[k]));
    }
    return new_nlexpr(new_node(Op::plus, roots.data(), nargs));
}

Ref NLExpr_coerce_to_exprtree(PyObject*, PyObject* value) { return tree_of(classify(value)); }

// ---- methods and fields

Ref NLExpr_copy(PyObject* self, PyObject*) { return new_nlexpr(borrow(root_of(self))); }

Ref NLExpr_deepcopy(PyObject* self, PyObject* memo) {
    return new_nlexpr(deep_copy_of_tree(root_of(self), memo));
}

Ref NLExpr_getValue(PyObject* self, PyObject*) { return float_object(tree_value(root_of(self))); }

Ref NLExpr_str(PyObject* self) { return tree_text(root_of(self)); }

Ref NLExpr_repr(PyObject* self) {
    Ref text = NLExpr_str(self);
    return checked(PyUnicode_FromFormat("<NLExpr: %U>", text.get()));
}

Ref NLExpr_root(PyObject* self, void*) { return borrow(root_of(self)); }

void NLExpr_set_root(PyObject* self, PyObject* value, void*) {
    if (!value) raise(PyExc_AttributeError, "_root can't be deleted");
    set_root(self, borrow(node_argument(value)));
}

PyDoc_STRVAR(type_doc,
             R"(NLExpr(tree, /)

A nonlinear expression. Arithmetic that leaves the quadratic world makes one, such as x ** 3 or 1 / x;
so do the functions exp, log, sqrt, sin, cos, tan and abs.

ARGUMENTS:
    tree: a tree node, a number, a Var, a LinExpr, a QuadExpr or an NLExpr.

EXAMPLE:
    expr = numpy.sqrt(x * x + 1) / y

NOTES:
    Trees are shared, never copied; the in-place operators give the expression a new root.)");
PyDoc_STRVAR(copy_doc,
             R"(copy($self, /)
--

ROUTINE:
    copy()

PURPOSE:
    Makes an independent copy.

RETURN VALUE:
    A new NLExpr; the tree, which never changes, is shared.)");
PyDoc_STRVAR(getValue_doc,
             R"(getValue($self, /)
--

ROUTINE:
    getValue()

PURPOSE:
    Computes the value of the expression at the last solution.

RETURN VALUE:
    A float; nan or an infinity where the expression has no value there.

EXAMPLE:
    m.optimize()
    level = expr.getValue()

NOTES:
    TaviroError where there is no solution, or none for a variable.)");

PyMethodDef methods[] = {
    {"copy", method<NLExpr_copy>(), METH_NOARGS, copy_doc},
    {"getValue", method<NLExpr_getValue>(), METH_NOARGS, getValue_doc},
    {"_from_constant", method<NLExpr_from_constant>(), METH_O | METH_STATIC,
     R"(_from_constant(number, /)
--

An NLExpr of a constant.)"},
    {"_from_var", method<NLExpr_from_var>(), METH_O | METH_STATIC,
     R"(_from_var(var, /)
--

An NLExpr of a variable.)"},
    {"_from_plus", method<NLExpr_from_plus>(), METH_FASTCALL | METH_STATIC,
     R"(_from_plus(*nlexprs)
--

The sum of any number of NLExprs, one plus node on their roots.)"},
    {"_coerce_to_exprtree", method<NLExpr_coerce_to_exprtree>(), METH_O | METH_STATIC,
     R"(_coerce_to_exprtree(value, /)
--

The tree of a number, Var, LinExpr, QuadExpr or NLExpr.)"},
    {"__copy__", method<NLExpr_copy>(), METH_NOARGS, R"(__copy__($self, /)
--

As copy().)"},
    {"__deepcopy__", method<NLExpr_deepcopy>(), METH_O,
     R"(__deepcopy__($self, memo, /)
--

As copy(): variables are handles, and stay the same; where their model is copied along, and
comes first, they are the copy's.)"},
    {nullptr},
};

PyGetSetDef getset[] = {
    {"_root", reinterpret_cast<getter>(&Guarded<NLExpr_root>::call),
     reinterpret_cast<setter>(&Guarded<NLExpr_set_root>::call), "The root node of the tree.",
     nullptr},
    {nullptr},
};

}  // namespace

Ref new_nlexpr(Ref root) {
    Ref self = checked(types.nlexpr->tp_alloc(types.nlexpr, 0));
    root_of(self.get()) = root.release();
    return self;
}

void ready_nlexpr(PyObject* module) {
    std::vector<PyType_Slot> slots = with_operators({
        {Py_tp_doc, const_cast<char*>(type_doc)},
        {Py_tp_new, slot<NLExpr_new>()},
        {Py_tp_dealloc, reinterpret_cast<void*>(NLExpr_dealloc)},
        {Py_tp_hash, reinterpret_cast<void*>(PyBaseObject_Type.tp_hash)},
        {Py_tp_repr, slot<NLExpr_repr>()},
        {Py_tp_str, slot<NLExpr_str>()},
        {Py_nb_inplace_add, slot<NLExpr_inplace<Op::plus>>()},
        {Py_nb_inplace_subtract, slot<NLExpr_inplace<Op::minus>>()},
        {Py_nb_inplace_multiply, slot<NLExpr_inplace<Op::multiply>>()},
        {Py_nb_inplace_true_divide, slot<NLExpr_inplace<Op::divide>>()},
        {Py_nb_inplace_power, slot<NLExpr_ipow>()},
        {Py_tp_methods, methods},
        {Py_tp_getset, getset},
    });
    PyType_Spec spec = {"taviropy._core.NLExpr", sizeof(NLExprObject), 0,
                        Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE, slots.data()};
    types.nlexpr = ready_type(module, &spec);
    types.nlexpr->tp_vectorcall = &Guarded<NLExpr_vectorcall>::call;
    add_array_priority(types.nlexpr);
    add_function_methods(types.nlexpr);
}

}  // namespace taviropy
