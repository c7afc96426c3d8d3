// LinExpr: constant + sum of coefficient * variable.
#include <array>

#include "attributes.hpp"
#include "termexpr.hpp"
#include "text.hpp"

namespace taviropy {

namespace {

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
void fill_linexpr(LinExprObject* self, PyObject* const* args, Py_ssize_t nargs) {
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

struct Linear {
    using Object = LinExprObject;
    static constexpr const char *name = "LinExpr", *full_name = "taviropy._core.LinExpr";
    static constexpr OperandKind kind = OperandKind::linear;
    static constexpr const char* expected = "a number, a Var or a LinExpr";

    static Ref make(PyTypeObject* type, PyObject*, PyObject*) {
        Ref self = checked(type->tp_alloc(type, 0));
        LinExprObject* linexpr = as_linexpr(self.get());
        linexpr->coeffs = empty_list().release();
        linexpr->vars = empty_list().release();
        linexpr->cont_ref = Py_NewRef(Py_None);
        return self;
    }
    static void fill(LinExprObject* self, PyObject* const* args, Py_ssize_t nargs) {
        fill_linexpr(self, args, nargs);
    }
    static auto fields(LinExprObject* self) {
        return std::array{self->coeffs, self->vars, self->cont_ref};
    }
    static auto variable_lists(LinExprObject* self) { return std::array{self->vars}; }
    static Ref copy(LinExprObject* self) { return scaled_linexpr(linear_view(self), 1.0); }
    static void clear(LinExprObject* self) { assign(self, 0.0, empty_list(), empty_list()); }
    static Ref text(LinExprObject* self) { return linexpr_text(self); }
    static double value(LinExprObject* self) { return linexpr_value(self); }

    static constexpr const char* doc = R"(LinExpr()
LinExpr(expr, /)
LinExpr(coeff, var, /)
LinExpr(coeffs, vars, /)

A linear expression: constant + sum of coefficient * variable.

ARGUMENTS:
    expr: a number, a Var, or a LinExpr to copy; without it, or with None, the expression is empty.
    coeff, var: one term, a number and a Var.
    coeffs, vars: terms, as lists or arrays of one length; they are copied.

EXAMPLE:
    expr = LinExpr([1.0, 2.0], [x, y])   # as x + 2 * y

NOTES:
    The fields constant, coeffs and vars are to be read; coeffs and vars are the lists
    themselves. ValueError for lists of different length, TypeError for what is no
    number or no Var. a + b copies the terms of both, so a long sum is built fastest with
    += on one expression, or from lists; sum() of Python copies all terms at every step.)";

    static constexpr const char* add_doc = R"(add($self, other, /)
--

ROUTINE:
    add(other)

PURPOSE:
    Adds to the expression in place, behind its own terms. Terms of one variable are not merged.

ARGUMENTS:
    other: a number, a Var or a LinExpr; it is left as it is.

EXAMPLE:
    expr.add(2 * y)   # as expr += 2 * y)";

    static constexpr const char* copy_doc = R"(copy($self, /)
--

ROUTINE:
    copy()

PURPOSE:
    Makes an independent copy.

RETURN VALUE:
    A new LinExpr of the same variables.)";

    static constexpr const char* size_doc = R"(size($self, /)
--

ROUTINE:
    size()

PURPOSE:
    Counts the terms, the constant aside.

RETURN VALUE:
    An int.)";

    static constexpr const char* getCoeff_doc = R"(getCoeff($self, i, /)
--

ROUTINE:
    getCoeff(i)

PURPOSE:
    Reads the coefficient of a term.

ARGUMENTS:
    i (int): place of the term, from 0; IndexError outside.

RETURN VALUE:
    A float.)";

    static constexpr const char* getVar_doc = R"(getVar($self, i, /)
--

ROUTINE:
    getVar(i)

PURPOSE:
    Reads the variable of a term.

ARGUMENTS:
    i (int): place of the term, from 0; IndexError outside.

RETURN VALUE:
    A Var.)";

    static constexpr const char* normalize_doc = R"(_normalize($self, /)
--

Merges the terms of one variable, in the order of first appearance;
terms that come out zero stay.)";
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
    LinExprObject* linexpr = as_linexpr(self.get());
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
    using Shared = TermExpr<Linear>;
    static std::vector<PyMethodDef> methods = Shared::methods({
        {"getVar", method<Shared::getVar<&LinExprObject::vars>>(), METH_O, Linear::getVar_doc},
    });
    types.linexpr = Shared::ready(module, methods.data(), members);
}

}  // namespace taviropy
