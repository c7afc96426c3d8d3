// QuadExpr: a linear part + sum of coefficient * variable * variable.
#include <array>

#include "attributes.hpp"
#include "termexpr.hpp"
#include "text.hpp"

namespace taviropy {

namespace {

/// Moves the content of a fresh expression into this one.
void take(QuadExprObject* self, Ref fresh) {
    QuadExprObject* other = as_quadexpr(fresh.get());
    std::swap(self->linear, other->linear);
    std::swap(self->coeffs, other->coeffs);
    std::swap(self->vars1, other->vars1);
    std::swap(self->vars2, other->vars2);
}

Ref empty_quadexpr() {
    return new_quadexpr(new_linexpr(), empty_list(), empty_list(), empty_list());
}

double quadexpr_value(QuadExprObject* self) {
    QuadraticView view = view_of(self);
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
    double value = linexpr_value(linear_part(self));
    for (std::size_t k = 0; k < coeffs.size(); ++k)
        value += coeffs[k] * values[2 * k] * values[2 * k + 1];
    return value;
}

struct Quadratic {
    using Object = QuadExprObject;
    static constexpr const char *name = "QuadExpr", *full_name = "taviropy._core.QuadExpr";
    static constexpr OperandKind kind = OperandKind::quadratic;
    static constexpr const char* expected = "a number, a Var, a LinExpr or a QuadExpr";

    static Ref make(PyTypeObject* type, PyObject*, PyObject*) {
        Ref self = checked(type->tp_alloc(type, 0));
        QuadExprObject* quadexpr = as_quadexpr(self.get());
        quadexpr->linear = new_linexpr().release();
        quadexpr->coeffs = empty_list().release();
        quadexpr->vars1 = empty_list().release();
        quadexpr->vars2 = empty_list().release();
        quadexpr->cont_ref = Py_NewRef(Py_None);
        return self;
    }
    static void fill(QuadExprObject* self, PyObject* const* args, Py_ssize_t nargs) {
        check_count(name, nargs, 0, 1);
        if (nargs == 0 || args[0] == Py_None) return clear(self);
        Operand operand = classify(args[0]);
        if (!TermExpr<Quadratic>::fits(operand))
            raise(PyExc_TypeError, "Cannot make a QuadExpr of '%s': expected %s",
                  Py_TYPE(args[0])->tp_name, expected);
        if (operand.kind == OperandKind::quadratic)
            take(self, copy(as_quadexpr(operand.object)));
        else
            take(self, new_quadexpr(scaled_linexpr(linear_view(operand), 1.0), empty_list(),
                                    empty_list(), empty_list()));
    }
    static auto fields(QuadExprObject* self) {
        return std::array{self->linear, self->coeffs, self->vars1, self->vars2, self->cont_ref};
    }
    static auto variable_lists(QuadExprObject* self) {
        return std::array{linear_part(self)->vars, self->vars1, self->vars2};
    }
    static Ref copy(QuadExprObject* self) { return scaled_quadexpr(self, 1.0); }
    static void clear(QuadExprObject* self) { take(self, empty_quadexpr()); }
    static Ref text(QuadExprObject* self) { return quadexpr_text(self); }
    static double value(QuadExprObject* self) { return quadexpr_value(self); }

    static constexpr const char* doc = R"(QuadExpr()
QuadExpr(expr, /)

A quadratic expression: a linear part + sum of coefficient * variable * variable.

ARGUMENTS:
    expr: a number, a Var or a LinExpr for the linear part, or a QuadExpr; it is
        copied. Without it, or with None, the expression is empty.

EXAMPLE:
    expr = 2 * x * y + x + 1

NOTES:
    The fields linear, coeffs, vars1 and vars2 are to be read; they are the linear part
    and the lists themselves. TypeError for another type.)";

    static constexpr const char* add_doc = R"(add($self, other, /)
--

ROUTINE:
    add(other)

PURPOSE:
    Adds to the expression in place, behind its own terms. Equal terms are not merged.

ARGUMENTS:
    other: a number, a Var, a LinExpr or a QuadExpr; it is left as it is.

EXAMPLE:
    expr.add(x * y)   # as expr += x * y)";

    static constexpr const char* copy_doc = R"(copy($self, /)
--

ROUTINE:
    copy()

PURPOSE:
    Makes an independent copy.

RETURN VALUE:
    A new QuadExpr of the same variables.)";

    static constexpr const char* size_doc = R"(size($self, /)
--

ROUTINE:
    size()

PURPOSE:
    Counts the quadratic terms.

RETURN VALUE:
    An int.)";

    static constexpr const char* getCoeff_doc = R"(getCoeff($self, i, /)
--

ROUTINE:
    getCoeff(i)

PURPOSE:
    Reads the coefficient of a quadratic term.

ARGUMENTS:
    i (int): place of the term, from 0; IndexError outside.

RETURN VALUE:
    A float.)";

    static constexpr const char* getVar1_doc = R"(getVar1($self, i, /)
--

ROUTINE:
    getVar1(i)

PURPOSE:
    Reads the first variable of a quadratic term.

ARGUMENTS:
    i (int): place of the term, from 0; IndexError outside.

RETURN VALUE:
    A Var.)";

    static constexpr const char* getVar2_doc = R"(getVar2($self, i, /)
--

ROUTINE:
    getVar2(i)

PURPOSE:
    Reads the second variable of a quadratic term.

ARGUMENTS:
    i (int): place of the term, from 0; IndexError outside.

RETURN VALUE:
    A Var.)";

    static constexpr const char* getLinExpr_doc = R"(getLinExpr($self, /)
--

ROUTINE:
    getLinExpr()

PURPOSE:
    Gives the linear part, the constant included.

RETURN VALUE:
    The LinExpr itself: a change of it changes this expression.)";

    static constexpr const char* normalize_doc = R"(_normalize($self, /)
--

Merges the terms of one pair of variables, in either order, and those of the linear part,
in the order of first appearance; terms that come out zero stay.)";
};

Ref getLinExpr(PyObject* self, PyObject*) { return borrow(as_quadexpr(self)->linear); }

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
    QuadExprObject* quadexpr = as_quadexpr(self.get());
    quadexpr->linear = linear.release();
    quadexpr->coeffs = coeffs.release();
    quadexpr->vars1 = vars1.release();
    quadexpr->vars2 = vars2.release();
    quadexpr->cont_ref = Py_NewRef(Py_None);
    return self;
}

void ready_quadexpr(PyObject* module) {
    using Shared = TermExpr<Quadratic>;
    static std::vector<PyMethodDef> methods = Shared::methods({
        {"getLinExpr", method<getLinExpr>(), METH_NOARGS, Quadratic::getLinExpr_doc},
        {"getVar1", method<Shared::getVar<&QuadExprObject::vars1>>(), METH_O,
         Quadratic::getVar1_doc},
        {"getVar2", method<Shared::getVar<&QuadExprObject::vars2>>(), METH_O,
         Quadratic::getVar2_doc},
    });
    types.quadexpr = Shared::ready(module, methods.data(), members);
}

}  // namespace taviropy
