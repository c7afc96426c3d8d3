// Gathering scalar expressions to the arrays of a model: one native pass.
#include "elements.hpp"
#include "operands.hpp"

namespace taviropy {

namespace {

/// The sizes of the arrays that a set of expressions fills.
struct Sizes {
    Py_ssize_t rows = 0, linear = 0, quadratic = 0;
};

[[noreturn]] void refuse_expression(Py_ssize_t row, PyObject* object, const char* expected) {
    raise(PyExc_TypeError, "expression %zd is of type '%s'; expected %s", row,
          Py_TYPE(object)->tp_name, expected);
}

constexpr const char* kLinearOperands = "a number, a Var or a LinExpr";
constexpr const char* kQuadraticOperands = "a number, a Var, a LinExpr or a QuadExpr";

Sizes measure(const Objects& exprs, bool quadratic) {
    Sizes sizes;
    sizes.rows = exprs.size();
    exprs.each([&](Py_ssize_t row, PyObject* object) {
        if (is_var(object)) {
            ++sizes.linear;
        } else if (is_linexpr(object)) {
            sizes.linear += linear_view(as_linexpr(object)).size;
        } else if (quadratic && is_quadexpr(object)) {
            sizes.linear += linear_view(linear_part(as_quadexpr(object))).size;
            sizes.quadratic += view_of(as_quadexpr(object)).size;
        } else if (!is_number(object) && object != Py_None) {
            refuse_expression(row, object, quadratic ? kQuadraticOperands : kLinearOperands);
        }
    });
    return sizes;
}

/// Rows of terms under construction: pointers, coefficients and one or two arrays of ids.
template <int width>
class Rows {
  public:
    Rows(Py_ssize_t rows, Py_ssize_t terms)
        : indptr("int64", rows + 1),
          ids1("int32", terms),
          ids2("int32", width == 2 ? terms : 0),
          coeffs("float64", terms),
          capacity_(terms) {
        indptr.items[0] = 0;
    }

    /// A place for a number of terms; code run on the way may have changed an expression.
    Py_ssize_t reserve(Py_ssize_t terms) {
        if (terms > capacity_ - filled_)
            raise(PyExc_RuntimeError, "an expression changed while it was read");
        Py_ssize_t place = filled_;
        filled_ += terms;
        return place;
    }
    void end_row(Py_ssize_t row) { indptr.items[row + 1] = filled_; }

    /// All places are filled, or an expression has changed.
    void finish() const {
        if (filled_ != capacity_)
            raise(PyExc_RuntimeError, "an expression changed while it was read");
    }

    FilledArray<int64_t> indptr;
    FilledArray<int32_t> ids1, ids2;
    FilledArray<double> coeffs;

  private:
    Py_ssize_t capacity_, filled_ = 0;
};

void fill_linear(PyObject* model, Rows<1>& rows, Py_ssize_t row, const LinearView& view) {
    Py_ssize_t place = rows.reserve(view.size);
    for (Py_ssize_t k = 0; k < view.size; ++k) {
        rows.ids1.items[place + k] = checked_id(model, variable(view.vars[k]), row);
        rows.coeffs.items[place + k] = coefficient(view.coeffs[k]);
    }
}

void fill_quadratic(PyObject* model, Rows<2>& rows, Py_ssize_t row, const QuadraticView& view) {
    Py_ssize_t place = rows.reserve(view.size);
    for (Py_ssize_t k = 0; k < view.size; ++k) {
        rows.ids1.items[place + k] = checked_id(model, variable(view.vars1[k]), row);
        rows.ids2.items[place + k] = checked_id(model, variable(view.vars2[k]), row);
        rows.coeffs.items[place + k] = coefficient(view.coeffs[k]);
    }
}

/// What an element is; None, which fills a new object array, is an empty expression as in
/// LinExpr().
Operand classify_element(PyObject* object) {
    if (object == Py_None) return {OperandKind::number, object, 0.0};
    return classify(object);
}

Ref gather_linear(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("gather_linear", nargs, 2, 2);
    PyObject* model = model_argument(args[0]);
    Objects exprs(args[1]);
    Sizes sizes = measure(exprs, false);
    Rows<1> rows(sizes.rows, sizes.linear);
    FilledArray<double> constants("float64", sizes.rows);
    exprs.each([&](Py_ssize_t row, PyObject* object) {
        Operand operand = classify_element(object);
        if (operand.kind == OperandKind::other || operand.kind > OperandKind::linear)
            refuse_expression(row, object, kLinearOperands);
        LinearView view = linear_view(operand);
        constants.items[row] = view.constant;
        fill_linear(model, rows, row, view);
        rows.end_row(row);
    });
    rows.finish();
    return checked(PyTuple_Pack(4, rows.indptr.array.get(), rows.ids1.array.get(),
                                rows.coeffs.array.get(), constants.array.get()));
}

Ref gather_quadratic(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("gather_quadratic", nargs, 2, 2);
    PyObject* model = model_argument(args[0]);
    Objects exprs(args[1]);
    Sizes sizes = measure(exprs, true);
    Rows<2> quadratic(sizes.rows, sizes.quadratic);
    Rows<1> linear(sizes.rows, sizes.linear);
    FilledArray<double> constants("float64", sizes.rows);
    exprs.each([&](Py_ssize_t row, PyObject* object) {
        Operand operand = classify_element(object);
        if (operand.kind == OperandKind::other || operand.kind > OperandKind::quadratic)
            refuse_expression(row, object, kQuadraticOperands);
        bool has_products = operand.kind == OperandKind::quadratic;
        LinearView view =
            has_products ? linear_view(linear_part(as_quadexpr(object))) : linear_view(operand);
        constants.items[row] = view.constant;
        fill_linear(model, linear, row, view);
        if (has_products) fill_quadratic(model, quadratic, row, view_of(as_quadexpr(object)));
        linear.end_row(row);
        quadratic.end_row(row);
    });
    linear.finish();
    quadratic.finish();
    return checked(PyTuple_Pack(8, quadratic.indptr.array.get(), quadratic.ids1.array.get(),
                                quadratic.ids2.array.get(), quadratic.coeffs.array.get(),
                                linear.indptr.array.get(), linear.ids1.array.get(),
                                linear.coeffs.array.get(), constants.array.get()));
}

}  // namespace

PyMethodDef gather_methods[] = {
    {"gather_linear", method<gather_linear>(), METH_FASTCALL,
     R"(gather_linear(model, exprs, /)
--

The terms of linear expressions as arrays.

exprs is an object ndarray of any strides (C order) or a list; each item a LinExpr, a Var, a
number or None. Gives (indptr int64, ids int32, coeffs float64, constants float64): the terms of
expression i are at indptr[i]:indptr[i + 1], in stored order, unmerged.

TypeError for another type, TaviroError for a variable of another model or a removed one.)"},
    {"gather_quadratic", method<gather_quadratic>(), METH_FASTCALL,
     R"(gather_quadratic(model, exprs, /)
--

The terms of quadratic expressions as arrays.

As gather_linear, for QuadExpr also. Gives (qptr, ids1, ids2, qcoeffs, indptr, ids, coeffs,
constants): the quadratic terms, then the linear parts.)"},
    {nullptr},
};

}  // namespace taviropy
