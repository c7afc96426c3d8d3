// QuadExpr: a linear part + sum of coefficient * variable * variable.
#include "arithmetic.hpp"
#include "attributes.hpp"
#include "terms.hpp"
#include "text.hpp"

namespace taviropy {

namespace {

QuadExprObject* self_of(PyObject* self) { return as_quadexpr(self); }

bool fits_in_place(const Operand& operand) {
    return operand.kind != OperandKind::other && operand.kind <= OperandKind::quadratic;
}

// ---- construction

Ref QuadExpr_new(PyTypeObject* type, PyObject*, PyObject*) {
    Ref self = checked(type->tp_alloc(type, 0));
    QuadExprObject* quadexpr = self_of(self.get());
    quadexpr->linear = new_linexpr().release();
    quadexpr->coeffs = empty_list().release();
    quadexpr->vars1 = empty_list().release();
    quadexpr->vars2 = empty_list().release();
    quadexpr->cont_ref = Py_NewRef(Py_None);
    return self;
}

void QuadExpr_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    QuadExprObject* quadexpr = self_of(self);
    Py_XDECREF(quadexpr->linear);
    Py_XDECREF(quadexpr->coeffs);
    Py_XDECREF(quadexpr->vars1);
    Py_XDECREF(quadexpr->vars2);
    Py_XDECREF(quadexpr->cont_ref);
    type->tp_free(self);
    Py_DECREF(type);
}

/// Moves the content of a fresh expression into this one.
void take(QuadExprObject* self, Ref fresh) {
    QuadExprObject* other = self_of(fresh.get());
    std::swap(self->linear, other->linear);
    std::swap(self->coeffs, other->coeffs);
    std::swap(self->vars1, other->vars1);
    std::swap(self->vars2, other->vars2);
}

void fill(QuadExprObject* self, PyObject* const* args, Py_ssize_t nargs) {
    check_count("QuadExpr", nargs, 0, 1);
    if (nargs == 0 || args[0] == Py_None)
        return take(self, QuadExpr_new(types.quadexpr, nullptr, nullptr));
    Operand operand = classify(args[0]);
    if (!fits_in_place(operand))
        raise(PyExc_TypeError,
              "Cannot make a QuadExpr of '%s': expected a number, a Var, a LinExpr or a QuadExpr",
              Py_TYPE(args[0])->tp_name);
    if (operand.kind == OperandKind::quadratic)
        take(self, scaled_quadexpr(as_quadexpr(operand.object), 1.0));
    else
        take(self, new_quadexpr(scaled_linexpr(linear_view(operand), 1.0), empty_list(),
                                empty_list(), empty_list()));
}

void QuadExpr_init(PyObject* self, PyObject* args, PyObject* kwargs) {
    if (kwargs && PyDict_GET_SIZE(kwargs))
        raise(PyExc_TypeError, "QuadExpr() takes no keyword arguments");
    fill(self_of(self), PySequence_Fast_ITEMS(args), PyTuple_GET_SIZE(args));
}

Ref QuadExpr_vectorcall(PyObject* type, PyObject* const* args, size_t nargsf, PyObject* kwnames) {
    if (kwnames && PyTuple_GET_SIZE(kwnames))
        raise(PyExc_TypeError, "QuadExpr() takes no keyword arguments");
    Ref self = QuadExpr_new(reinterpret_cast<PyTypeObject*>(type), nullptr, nullptr);
    Py_ssize_t nargs = PyVectorcall_NARGS(nargsf);
    if (nargs) fill(self_of(self.get()), args, nargs);
    return self;
}

// ---- in-place operators

Ref add_inplace(PyObject* self, PyObject* other, double sign) {
    Operand operand = classify(other);
    if (!fits_in_place(operand)) return not_implemented();
    add_to_quadexpr(self_of(self), operand, sign);
    return borrow(self);
}

Ref QuadExpr_iadd(PyObject* self, PyObject* other) { return add_inplace(self, other, 1.0); }
Ref QuadExpr_isub(PyObject* self, PyObject* other) { return add_inplace(self, other, -1.0); }

Ref QuadExpr_imul(PyObject* self, PyObject* other) {
    Operand operand = classify(other);
    if (operand.kind != OperandKind::number) return not_implemented();
    scale_quadexpr(self_of(self), operand.number);
    return borrow(self);
}

Ref QuadExpr_itruediv(PyObject* self, PyObject* other) {
    Operand operand = classify(other);
    if (operand.kind != OperandKind::number) return not_implemented();
    scale_quadexpr(self_of(self), reciprocal(operand.number));
    return borrow(self);
}

// ---- methods

Ref QuadExpr_add(PyObject* self, PyObject* other) {
    Operand operand = classify(other);
    if (!fits_in_place(operand))
        raise(PyExc_TypeError,
              "Cannot add '%s' to a QuadExpr in place: expected a number, a Var, a LinExpr or a "
              "QuadExpr; the operator + makes a new expression",
              Py_TYPE(other)->tp_name);
    add_to_quadexpr(self_of(self), operand, 1.0);
    return none();
}

Ref QuadExpr_copy(PyObject* self, PyObject*) { return scaled_quadexpr(self_of(self), 1.0); }

Ref QuadExpr_deepcopy(PyObject* self, PyObject* memo) {
    Ref copy = QuadExpr_copy(self, nullptr);
    QuadExprObject* fields = self_of(copy.get());
    for (PyObject* list : {as_linexpr(fields->linear)->vars, fields->vars1, fields->vars2})
        deep_copy_vars(list, memo);
    return copy;
}

Ref QuadExpr_clear(PyObject* self, PyObject*) {
    take(self_of(self), QuadExpr_new(types.quadexpr, nullptr, nullptr));
    return none();
}

Ref QuadExpr_getLinExpr(PyObject* self, PyObject*) { return borrow(self_of(self)->linear); }

Ref QuadExpr_getConstant(PyObject* self, PyObject*) {
    return float_object(linear_part(self_of(self))->constant);
}

Ref QuadExpr_getValue(PyObject* self, PyObject*) {
    QuadraticView view = quadratic_view(self_of(self));
    std::vector<double> coeffs;
    std::vector<PyObject*> vars;
    coeffs.reserve(view.size);
    vars.reserve(2 * view.size);
    for (Py_ssize_t k = 0; k < view.size; ++k) {
        coeffs.push_back(coefficient(view.coeffs[k]));
        vars.push_back(view.vars1[k]);
        vars.push_back(view.vars2[k]);
    }
    std::vector<double> values = solution_values(vars.data(), 2 * view.size);
    double value = linexpr_value(linear_part(self_of(self)));
    for (std::size_t k = 0; k < coeffs.size(); ++k)
        value += coeffs[k] * values[2 * k] * values[2 * k + 1];
    return float_object(value);
}

Ref QuadExpr_size(PyObject* self, PyObject*) {
    return checked(PyLong_FromSsize_t(quadratic_view(self_of(self)).size));
}

Ref QuadExpr_getCoeff(PyObject* self, PyObject* index) {
    return list_item(self_of(self)->coeffs, index, "QuadExpr");
}

Ref QuadExpr_getVar1(PyObject* self, PyObject* index) {
    return list_item(self_of(self)->vars1, index, "QuadExpr");
}

Ref QuadExpr_getVar2(PyObject* self, PyObject* index) {
    return list_item(self_of(self)->vars2, index, "QuadExpr");
}

Ref QuadExpr_scale(PyObject* self, PyObject* factor) {
    scale_quadexpr(self_of(self), number_value(factor, "the factor"));
    return none();
}

Ref QuadExpr_flatten(PyObject* self, PyObject*) {
    linear_view(linear_part(self_of(self)));
    quadratic_view(self_of(self));  // all terms stand in the lists, once these match
    return none();
}

Ref QuadExpr_normalize(PyObject* self, PyObject*) {
    normalize_quadexpr(self_of(self));
    return none();
}

Ref QuadExpr_str(PyObject* self) { return quadexpr_text(self_of(self)); }

Ref QuadExpr_repr(PyObject* self) {
    Ref text = QuadExpr_str(self);
    return checked(PyUnicode_FromFormat("<QuadExpr: %U>", text.get()));
}

PyDoc_STRVAR(
    type_doc,
    "QuadExpr()\nQuadExpr(expr, /)\n\n"
    "A quadratic expression: a linear part + sum of coefficient * variable * variable.\n\n"
    "ARGUMENTS:\n"
    "    expr: a number, a Var or a LinExpr for the linear part, or a QuadExpr; it is\n"
    "        copied. Without it, or with None, the expression is empty.\n\n"
    "EXAMPLE:\n"
    "    expr = 2 * x * y + x + 1\n\n"
    "NOTES:\n"
    "    The fields linear, coeffs, vars1 and vars2 are to be read; they are the linear part\n"
    "    and the lists themselves. TypeError for another type.");

PyDoc_STRVAR(
    add_doc,
    "add($self, other, /)\n--\n\n"
    "ROUTINE:\n    add(other)\n\n"
    "PURPOSE:\n    Adds to the expression in place, behind its own terms. Equal terms are not "
    "merged.\n\n"
    "ARGUMENTS:\n    other: a number, a Var, a LinExpr or a QuadExpr; it is left as it is.\n\n"
    "EXAMPLE:\n    expr.add(x * y)   # as expr += x * y");
PyDoc_STRVAR(copy_doc,
             "copy($self, /)\n--\n\n"
             "ROUTINE:\n    copy()\n\n"
             "PURPOSE:\n    Makes an independent copy.\n\n"
             "RETURN VALUE:\n    A new QuadExpr of the same variables.");
PyDoc_STRVAR(clear_doc,
             "clear($self, /)\n--\n\n"
             "ROUTINE:\n    clear()\n\n"
             "PURPOSE:\n    Removes all terms and sets the constant to 0.0.");
PyDoc_STRVAR(getLinExpr_doc,
             "getLinExpr($self, /)\n--\n\n"
             "ROUTINE:\n    getLinExpr()\n\n"
             "PURPOSE:\n    Gives the linear part, the constant included.\n\n"
             "RETURN VALUE:\n    The LinExpr itself: a change of it changes this expression.");
PyDoc_STRVAR(getConstant_doc,
             "getConstant($self, /)\n--\n\n"
             "ROUTINE:\n    getConstant()\n\n"
             "PURPOSE:\n    Reads the constant.\n\n"
             "RETURN VALUE:\n    A float.");
PyDoc_STRVAR(getValue_doc,
             "getValue($self, /)\n--\n\n"
             "ROUTINE:\n    getValue()\n\n"
             "PURPOSE:\n    Computes the value of the expression at the last solution.\n\n"
             "RETURN VALUE:\n    A float.\n\n"
             "EXAMPLE:\n    m.optimize()\n    cost = expr.getValue()\n\n"
             "NOTES:\n    TaviroError where there is no solution, or none for a variable.");
PyDoc_STRVAR(size_doc,
             "size($self, /)\n--\n\n"
             "ROUTINE:\n    size()\n\n"
             "PURPOSE:\n    Counts the quadratic terms.\n\n"
             "RETURN VALUE:\n    An int.");
PyDoc_STRVAR(getCoeff_doc,
             "getCoeff($self, i, /)\n--\n\n"
             "ROUTINE:\n    getCoeff(i)\n\n"
             "PURPOSE:\n    Reads the coefficient of a quadratic term.\n\n"
             "ARGUMENTS:\n    i (int): place of the term, from 0; IndexError outside.\n\n"
             "RETURN VALUE:\n    A float.");
PyDoc_STRVAR(getVar1_doc,
             "getVar1($self, i, /)\n--\n\n"
             "ROUTINE:\n    getVar1(i)\n\n"
             "PURPOSE:\n    Reads the first variable of a quadratic term.\n\n"
             "ARGUMENTS:\n    i (int): place of the term, from 0; IndexError outside.\n\n"
             "RETURN VALUE:\n    A Var.");
PyDoc_STRVAR(getVar2_doc,
             "getVar2($self, i, /)\n--\n\n"
             "ROUTINE:\n    getVar2(i)\n\n"
             "PURPOSE:\n    Reads the second variable of a quadratic term.\n\n"
             "ARGUMENTS:\n    i (int): place of the term, from 0; IndexError outside.\n\n"
             "RETURN VALUE:\n    A Var.");

PyMethodDef methods[] = {
    {"add", method<QuadExpr_add>(), METH_O, add_doc},
    {"copy", method<QuadExpr_copy>(), METH_NOARGS, copy_doc},
    {"clear", method<QuadExpr_clear>(), METH_NOARGS, clear_doc},
    {"getLinExpr", method<QuadExpr_getLinExpr>(), METH_NOARGS, getLinExpr_doc},
    {"getConstant", method<QuadExpr_getConstant>(), METH_NOARGS, getConstant_doc},
    {"getValue", method<QuadExpr_getValue>(), METH_NOARGS, getValue_doc},
    {"size", method<QuadExpr_size>(), METH_NOARGS, size_doc},
    {"getCoeff", method<QuadExpr_getCoeff>(), METH_O, getCoeff_doc},
    {"getVar1", method<QuadExpr_getVar1>(), METH_O, getVar1_doc},
    {"getVar2", method<QuadExpr_getVar2>(), METH_O, getVar2_doc},
    {"_mul", method<QuadExpr_scale>(), METH_O,
     "_mul($self, value, /)\n--\n\nMultiplies in place by a number."},
    {"_flatten", method<QuadExpr_flatten>(), METH_NOARGS,
     "_flatten($self, /)\n--\n\nBrings all content into the lists, where it is at all times."},
    {"_normalize", method<QuadExpr_normalize>(), METH_NOARGS,
     "_normalize($self, /)\n--\n\nMerges the terms of one pair of variables, in either order, and "
     "those "
     "of the linear part,\nin the order of first appearance; terms that come out zero stay."},
    {"__copy__", method<QuadExpr_copy>(), METH_NOARGS, "__copy__($self, /)\n--\n\nAs copy()."},
    {"__deepcopy__", method<QuadExpr_deepcopy>(), METH_O,
     "__deepcopy__($self, memo, /)\n--\n\nAs copy(): variables are handles, and stay the same; "
     "where "
     "their model is copied along, and\ncomes first, they are the copy's."},
    {nullptr},
};

PyMemberDef members[] = {
    {"linear", Py_T_OBJECT_EX, offsetof(QuadExprObject, linear), Py_READONLY,
     "The linear part, a LinExpr."},
    {"coeffs", Py_T_OBJECT_EX, offsetof(QuadExprObject, coeffs), Py_READONLY,
     "The coefficients of the quadratic terms, a list of float."},
    {"vars1", Py_T_OBJECT_EX, offsetof(QuadExprObject, vars1), Py_READONLY,
     "The first variables, a list of Var."},
    {"vars2", Py_T_OBJECT_EX, offsetof(QuadExprObject, vars2), Py_READONLY,
     "The second variables, a list of Var."},
    {nullptr},
};

}  // namespace

Ref new_quadexpr(Ref linear, Ref coeffs, Ref vars1, Ref vars2) {
    Ref self = checked(types.quadexpr->tp_alloc(types.quadexpr, 0));
    QuadExprObject* quadexpr = self_of(self.get());
    quadexpr->linear = linear.release();
    quadexpr->coeffs = coeffs.release();
    quadexpr->vars1 = vars1.release();
    quadexpr->vars2 = vars2.release();
    quadexpr->cont_ref = Py_NewRef(Py_None);
    return self;
}

void ready_quadexpr(PyObject* module) {
    std::vector<PyType_Slot> slots = with_operators({
        {Py_tp_doc, const_cast<char*>(type_doc)},
        {Py_tp_new, slot<QuadExpr_new>()},
        {Py_tp_init, slot<QuadExpr_init>()},
        {Py_tp_dealloc, reinterpret_cast<void*>(QuadExpr_dealloc)},
        {Py_tp_hash, reinterpret_cast<void*>(PyBaseObject_Type.tp_hash)},
        {Py_tp_repr, slot<QuadExpr_repr>()},
        {Py_tp_str, slot<QuadExpr_str>()},
        {Py_nb_inplace_add, slot<QuadExpr_iadd>()},
        {Py_nb_inplace_subtract, slot<QuadExpr_isub>()},
        {Py_nb_inplace_multiply, slot<QuadExpr_imul>()},
        {Py_nb_inplace_true_divide, slot<QuadExpr_itruediv>()},
        {Py_tp_methods, methods},
        {Py_tp_members, members},
    });
    PyType_Spec spec = {"taviropy._core.QuadExpr", sizeof(QuadExprObject), 0,
                        Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE, slots.data()};
    types.quadexpr = ready_type(module, &spec);
    types.quadexpr->tp_vectorcall = &Guarded<QuadExpr_vectorcall>::call;
    add_array_priority(types.quadexpr);
    add_function_methods(types.quadexpr);
}

}  // namespace taviropy
