// LinExpr: constant + sum of coefficient * variable.
#include "arithmetic.hpp"
#include "attributes.hpp"
#include "terms.hpp"
#include "text.hpp"

namespace taviropy {

namespace {

LinExprObject* self_of(PyObject* self) { return as_linexpr(self); }

// ---- construction

Ref LinExpr_new(PyTypeObject* type, PyObject*, PyObject*) {
    Ref self = checked(type->tp_alloc(type, 0));
    LinExprObject* linexpr = self_of(self.get());
    linexpr->coeffs = empty_list().release();
    linexpr->vars = empty_list().release();
    linexpr->cont_ref = Py_NewRef(Py_None);
    return self;
}

void LinExpr_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    LinExprObject* linexpr = self_of(self);
    Py_XDECREF(linexpr->coeffs);
    Py_XDECREF(linexpr->vars);
    Py_XDECREF(linexpr->cont_ref);
    type->tp_free(self);
    Py_DECREF(type);
}

void assign(LinExprObject* self, double constant, Ref coeffs, Ref vars) {
    self->constant = constant;
    Py_SETREF(self->coeffs, coeffs.release());
    Py_SETREF(self->vars, vars.release());
}

/// A sequence as a list or tuple; arrays and array-shaped objects by their tolist.
Ref sequence(PyObject* source, const char* what) {
    if (PyList_Check(source) || PyTuple_Check(source)) return borrow(source);
    if (is_number(source) || is_var(source) || PyUnicode_Check(source))
        raise(PyExc_TypeError,
              "LinExpr: %s is of type '%s'; give a list or an array for each of the two, or a "
              "number and a Var",
              what, Py_TYPE(source)->tp_name);
    Ref tolist(PyObject_GetAttrString(source, "tolist"));
    if (!tolist) {
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw PythonError();
        PyErr_Clear();
        return tuple_of(source);
    }
    Ref list = checked(PyObject_CallNoArgs(tolist.get()));
    if (!PyList_Check(list.get()))
        raise(PyExc_TypeError, "LinExpr: %s is an array without dimensions; expected one", what);
    return list;
}

/// Takes coefficients and variables that were given as sequences.
void assign_sequences(LinExprObject* self, PyObject* coeff_source, PyObject* var_source) {
    Ref given_coeffs = sequence(coeff_source, "the first argument");
    Ref given_vars = sequence(var_source, "the second argument");
    Py_ssize_t size = PySequence_Fast_GET_SIZE(given_vars.get());
    if (PySequence_Fast_GET_SIZE(given_coeffs.get()) != size)
        raise(PyExc_ValueError,
              "LinExpr: %zd coefficients for %zd variables; give one coefficient a variable",
              PySequence_Fast_GET_SIZE(given_coeffs.get()), size);
    ListBuilder coeffs(size), vars(size);
    for (Py_ssize_t k = 0; k < size; ++k) {
        PyObject* var = PySequence_Fast_GET_ITEM(given_vars.get(), k);
        if (!is_var(var))
            raise(PyExc_TypeError, "LinExpr: variable %zd is of type '%s'; expected a Var", k,
                  Py_TYPE(var)->tp_name);
        vars.append(borrow(var));
    }
    for (Py_ssize_t k = 0; k < size; ++k) {
        if (k >= PySequence_Fast_GET_SIZE(given_coeffs.get()))
            raise(PyExc_RuntimeError, "LinExpr: a list changed its size while it was read");
        Ref coeff = borrow(PySequence_Fast_GET_ITEM(given_coeffs.get(), k));
        if (PyFloat_CheckExact(coeff.get()))
            coeffs.append(std::move(coeff));
        else
            coeffs.append(float_object(number_value(coeff.get(), "LinExpr: a coefficient")));
    }
    assign(self, 0.0, coeffs.finish(), vars.finish());
}

void assign_one(LinExprObject* self, PyObject* source) {
    Operand operand = classify(source);
    if (operand.kind > OperandKind::linear || operand.kind == OperandKind::other)
        raise(PyExc_TypeError,
              "Cannot make a LinExpr of '%s': expected a number, a Var, a LinExpr, or coefficients "
              "and variables",
              Py_TYPE(source)->tp_name);
    LinearView view = linear_view(operand);
    ListBuilder coeffs(view.size), vars(view.size);
    coeffs.append_coefficients(view.coeffs, view.size, 1.0);
    vars.append_variables(view.vars, view.size);
    assign(self, view.constant, coeffs.finish(), vars.finish());
}

/// The forms of the constructor, on an expression in any state.
void fill(LinExprObject* self, PyObject* const* args, Py_ssize_t nargs) {
    check_count("LinExpr", nargs, 0, 2);
    if (nargs == 2 && is_var(args[1])) {
        double coeff = number_value(args[0], "LinExpr: the coefficient");
        ListBuilder coeffs(1), vars(1);
        coeffs.append(float_object(coeff));
        vars.append(borrow(args[1]));
        assign(self, 0.0, coeffs.finish(), vars.finish());
    } else if (nargs == 2) {
        assign_sequences(self, args[0], args[1]);
    } else if (nargs == 1 && args[0] != Py_None) {
        assign_one(self, args[0]);
    } else if (PyList_GET_SIZE(self->coeffs) || self->constant != 0.0) {
        assign(self, 0.0, empty_list(), empty_list());
    }
}

void LinExpr_init(PyObject* self, PyObject* args, PyObject* kwargs) {
    if (kwargs && PyDict_GET_SIZE(kwargs))
        raise(PyExc_TypeError, "LinExpr() takes no keyword arguments");
    fill(self_of(self), PySequence_Fast_ITEMS(args), PyTuple_GET_SIZE(args));
}

Ref LinExpr_vectorcall(PyObject* type, PyObject* const* args, size_t nargsf, PyObject* kwnames) {
    if (kwnames && PyTuple_GET_SIZE(kwnames))
        raise(PyExc_TypeError, "LinExpr() takes no keyword arguments");
    Ref self = LinExpr_new(reinterpret_cast<PyTypeObject*>(type), nullptr, nullptr);
    Py_ssize_t nargs = PyVectorcall_NARGS(nargsf);
    if (nargs) fill(self_of(self.get()), args, nargs);
    return self;
}

// ---- in-place operators

Ref add_inplace(PyObject* self, PyObject* other, double sign) {
    Operand operand = classify(other);
    if (operand.kind == OperandKind::other || operand.kind > OperandKind::linear)
        return not_implemented();
    add_to_linexpr(self_of(self), operand, sign);
    return borrow(self);
}

Ref LinExpr_iadd(PyObject* self, PyObject* other) { return add_inplace(self, other, 1.0); }
Ref LinExpr_isub(PyObject* self, PyObject* other) { return add_inplace(self, other, -1.0); }

Ref LinExpr_imul(PyObject* self, PyObject* other) {
    Operand operand = classify(other);
    if (operand.kind != OperandKind::number) return not_implemented();
    scale_linexpr(self_of(self), operand.number);
    return borrow(self);
}

Ref LinExpr_itruediv(PyObject* self, PyObject* other) {
    Operand operand = classify(other);
    if (operand.kind != OperandKind::number) return not_implemented();
    scale_linexpr(self_of(self), reciprocal(operand.number));
    return borrow(self);
}

// ---- methods

Ref LinExpr_add(PyObject* self, PyObject* other) {
    Operand operand = classify(other);
    if (operand.kind == OperandKind::other || operand.kind > OperandKind::linear)
        raise(PyExc_TypeError,
              "Cannot add '%s' to a LinExpr in place: expected a number, a Var or a LinExpr; the "
              "operator + makes a new expression",
              Py_TYPE(other)->tp_name);
    add_to_linexpr(self_of(self), operand, 1.0);
    return none();
}

Ref LinExpr_copy(PyObject* self, PyObject*) {
    return scaled_linexpr(linear_view(self_of(self)), 1.0);
}

Ref LinExpr_deepcopy(PyObject* self, PyObject* memo) {
    Ref copy = LinExpr_copy(self, nullptr);
    deep_copy_vars(self_of(copy.get())->vars, memo);
    return copy;
}

Ref LinExpr_clear(PyObject* self, PyObject*) {
    assign(self_of(self), 0.0, empty_list(), empty_list());
    return none();
}

Ref LinExpr_getConstant(PyObject* self, PyObject*) { return float_object(self_of(self)->constant); }

Ref LinExpr_getValue(PyObject* self, PyObject*) {
    return float_object(linexpr_value(self_of(self)));
}

Ref LinExpr_size(PyObject* self, PyObject*) {
    return checked(PyLong_FromSsize_t(linear_view(self_of(self)).size));
}

Ref LinExpr_getCoeff(PyObject* self, PyObject* index) {
    return list_item(self_of(self)->coeffs, index, "LinExpr");
}

Ref LinExpr_getVar(PyObject* self, PyObject* index) {
    return list_item(self_of(self)->vars, index, "LinExpr");
}

Ref LinExpr_scale(PyObject* self, PyObject* factor) {
    scale_linexpr(self_of(self), number_value(factor, "the factor"));
    return none();
}

Ref LinExpr_flatten(PyObject* self, PyObject*) {
    linear_view(self_of(self));  // all terms stand in the lists, once these match
    return none();
}

Ref LinExpr_normalize(PyObject* self, PyObject*) {
    normalize_linexpr(self_of(self));
    return none();
}

Ref LinExpr_str(PyObject* self) { return linexpr_text(self_of(self)); }

Ref LinExpr_repr(PyObject* self) {
    Ref text = LinExpr_str(self);
    return checked(PyUnicode_FromFormat("<LinExpr: %U>", text.get()));
}

PyDoc_STRVAR(
    type_doc,
    "LinExpr()\nLinExpr(expr, /)\nLinExpr(coeff, var, /)\nLinExpr(coeffs, vars, /)\n\n"
    "A linear expression: constant + sum of coefficient * variable.\n\n"
    "ARGUMENTS:\n"
    "    expr: a number, a Var, or a LinExpr to copy; without it, or with None, the expression is "
    "empty.\n"
    "    coeff, var: one term, a number and a Var.\n"
    "    coeffs, vars: terms, as lists or arrays of one length; they are copied.\n\n"
    "EXAMPLE:\n"
    "    expr = LinExpr([1.0, 2.0], [x, y])   # as x + 2 * y\n\n"
    "NOTES:\n"
    "    The fields constant, coeffs and vars are to be read; coeffs and vars are the lists\n"
    "    themselves. ValueError for lists of different length, TypeError for what is no\n"
    "    number or no Var. a + b copies the terms of both, so a long sum is built fastest with\n"
    "    += on one expression, or from lists; sum() of Python copies all terms at every step.");

PyDoc_STRVAR(add_doc,
             "add($self, other, /)\n--\n\n"
             "ROUTINE:\n    add(other)\n\n"
             "PURPOSE:\n    Adds to the expression in place, behind its own terms. Terms of one "
             "variable are not merged.\n\n"
             "ARGUMENTS:\n    other: a number, a Var or a LinExpr; it is left as it is.\n\n"
             "EXAMPLE:\n    expr.add(2 * y)   # as expr += 2 * y");
PyDoc_STRVAR(copy_doc,
             "copy($self, /)\n--\n\n"
             "ROUTINE:\n    copy()\n\n"
             "PURPOSE:\n    Makes an independent copy.\n\n"
             "RETURN VALUE:\n    A new LinExpr of the same variables.");
PyDoc_STRVAR(clear_doc,
             "clear($self, /)\n--\n\n"
             "ROUTINE:\n    clear()\n\n"
             "PURPOSE:\n    Removes all terms and sets the constant to 0.0.");
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
             "PURPOSE:\n    Counts the terms, the constant aside.\n\n"
             "RETURN VALUE:\n    An int.");
PyDoc_STRVAR(getCoeff_doc,
             "getCoeff($self, i, /)\n--\n\n"
             "ROUTINE:\n    getCoeff(i)\n\n"
             "PURPOSE:\n    Reads the coefficient of a term.\n\n"
             "ARGUMENTS:\n    i (int): place of the term, from 0; IndexError outside.\n\n"
             "RETURN VALUE:\n    A float.");
PyDoc_STRVAR(getVar_doc,
             "getVar($self, i, /)\n--\n\n"
             "ROUTINE:\n    getVar(i)\n\n"
             "PURPOSE:\n    Reads the variable of a term.\n\n"
             "ARGUMENTS:\n    i (int): place of the term, from 0; IndexError outside.\n\n"
             "RETURN VALUE:\n    A Var.");

PyMethodDef methods[] = {
    {"add", method<LinExpr_add>(), METH_O, add_doc},
    {"copy", method<LinExpr_copy>(), METH_NOARGS, copy_doc},
    {"clear", method<LinExpr_clear>(), METH_NOARGS, clear_doc},
    {"getConstant", method<LinExpr_getConstant>(), METH_NOARGS, getConstant_doc},
    {"getValue", method<LinExpr_getValue>(), METH_NOARGS, getValue_doc},
    {"size", method<LinExpr_size>(), METH_NOARGS, size_doc},
    {"getCoeff", method<LinExpr_getCoeff>(), METH_O, getCoeff_doc},
    {"getVar", method<LinExpr_getVar>(), METH_O, getVar_doc},
    {"_mul", method<LinExpr_scale>(), METH_O,
     "_mul($self, value, /)\n--\n\nMultiplies in place by a number."},
    {"_flatten", method<LinExpr_flatten>(), METH_NOARGS,
     "_flatten($self, /)\n--\n\nBrings all content into the lists, where it is at all times."},
    {"_normalize", method<LinExpr_normalize>(), METH_NOARGS,
     "_normalize($self, /)\n--\n\nMerges the terms of one variable, in the order of first "
     "appearance;\n"
     "terms that come out zero stay."},
    {"__copy__", method<LinExpr_copy>(), METH_NOARGS, "__copy__($self, /)\n--\n\nAs copy()."},
    {"__deepcopy__", method<LinExpr_deepcopy>(), METH_O,
     "__deepcopy__($self, memo, /)\n--\n\nAs copy(): variables are handles, and stay the same; "
     "where "
     "their model is copied along, and\ncomes first, they are the copy's."},
    {nullptr},
};

PyMemberDef members[] = {
    {"constant", Py_T_DOUBLE, offsetof(LinExprObject, constant), Py_READONLY, "The constant."},
    {"coeffs", Py_T_OBJECT_EX, offsetof(LinExprObject, coeffs), Py_READONLY,
     "The coefficients, a list of float."},
    {"vars", Py_T_OBJECT_EX, offsetof(LinExprObject, vars), Py_READONLY,
     "The variables, a list of Var."},
    {"cont_ref", Py_T_OBJECT_EX, offsetof(LinExprObject, cont_ref), Py_READONLY, "Always None."},
    {nullptr},
};

}  // namespace

Ref new_linexpr(double constant, Ref coeffs, Ref vars) {
    Ref self = checked(types.linexpr->tp_alloc(types.linexpr, 0));
    LinExprObject* linexpr = self_of(self.get());
    linexpr->constant = constant;
    linexpr->coeffs = coeffs.release();
    linexpr->vars = vars.release();
    linexpr->cont_ref = Py_NewRef(Py_None);
    return self;
}

Ref new_linexpr() { return new_linexpr(0.0, empty_list(), empty_list()); }

double linexpr_value(LinExprObject* linexpr) {
    LinearView view = linear_view(linexpr);
    std::vector<double> coeffs;
    coeffs.reserve(view.size);
    for (Py_ssize_t k = 0; k < view.size; ++k) coeffs.push_back(coefficient(view.coeffs[k]));
    double value = linexpr->constant;
    std::vector<double> values = solution_values(view.vars, view.size);
    for (std::size_t k = 0; k < coeffs.size(); ++k) value += coeffs[k] * values[k];
    return value;
}

void ready_linexpr(PyObject* module) {
    std::vector<PyType_Slot> slots = with_operators({
        {Py_tp_doc, const_cast<char*>(type_doc)},
        {Py_tp_new, slot<LinExpr_new>()},
        {Py_tp_init, slot<LinExpr_init>()},
        {Py_tp_dealloc, reinterpret_cast<void*>(LinExpr_dealloc)},
        {Py_tp_hash, reinterpret_cast<void*>(PyBaseObject_Type.tp_hash)},
        {Py_tp_repr, slot<LinExpr_repr>()},
        {Py_tp_str, slot<LinExpr_str>()},
        {Py_nb_inplace_add, slot<LinExpr_iadd>()},
        {Py_nb_inplace_subtract, slot<LinExpr_isub>()},
        {Py_nb_inplace_multiply, slot<LinExpr_imul>()},
        {Py_nb_inplace_true_divide, slot<LinExpr_itruediv>()},
        {Py_tp_methods, methods},
        {Py_tp_members, members},
    });
    PyType_Spec spec = {"taviropy._core.LinExpr", sizeof(LinExprObject), 0,
                        Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE, slots.data()};
    types.linexpr = ready_type(module, &spec);
    types.linexpr->tp_vectorcall = &Guarded<LinExpr_vectorcall>::call;
    add_array_priority(types.linexpr);
    add_function_methods(types.linexpr);
}

}  // namespace taviropy
