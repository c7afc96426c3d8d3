#include "arithmetic.hpp"

#include "terms.hpp"

namespace taviropy {

namespace {

/// Two operands, held: NumPy passes those of an array without a reference of its own, and a number
/// may take itself out of the array while it is asked for its value.
struct Pair {
    Ref held_left, held_right;
    Operand left, right;
    OperandKind highest;

    Pair(PyObject* l, PyObject* r)
        : held_left(borrow(l)),
          held_right(borrow(r)),
          left(classify(l)),
          right(classify(r)),
          highest(std::max(left.kind, right.kind)) {}
    bool is_foreign() const {
        return left.kind == OperandKind::other || right.kind == OperandKind::other;
    }
    Ref node(Op op) const {
        Ref children[] = {tree_of(left), tree_of(right)};
        PyObject* pointers[] = {children[0].get(), children[1].get()};
        return new_nlexpr(new_node(op, pointers, 2));
    }
};

Ref sum(Operator op, PyObject* left, PyObject* right, double sign) {
    Pair pair(left, right);
    if (pair.is_foreign()) return operate_with_array(op, left, right);
    if (pair.highest == OperandKind::nonlinear) return pair.node(sign > 0.0 ? Op::plus : Op::minus);
    if (pair.highest == OperandKind::quadratic) return quadratic_sum(pair.left, pair.right, sign);
    return linear_sum(linear_view(pair.left), linear_view(pair.right), sign);
}

Ref scaled(const Operand& operand, double factor) {
    if (operand.kind == OperandKind::quadratic)
        return scaled_quadexpr(as_quadexpr(operand.object), factor);
    return scaled_linexpr(linear_view(operand), factor);
}

Ref product(const Pair& pair) {
    if (pair.highest == OperandKind::nonlinear) return pair.node(Op::multiply);
    if (pair.left.kind == OperandKind::number) return scaled(pair.right, pair.left.number);
    if (pair.right.kind == OperandKind::number) return scaled(pair.left, pair.right.number);
    if (pair.highest == OperandKind::quadratic) return pair.node(Op::multiply);
    return linear_product(linear_view(pair.left), linear_view(pair.right));
}

Ref unary_node(Op op, PyObject* self) {
    Ref child = tree_of(classify(self));
    PyObject* children[] = {child.get()};
    return new_nlexpr(new_node(op, children, 1));
}

Ref negative(PyObject* self) {
    Operand operand = classify(self);
    if (operand.kind == OperandKind::nonlinear) return unary_node(Op::uminus, self);
    return scaled(operand, -1.0);
}

Ref positive(PyObject* self) {
    Operand operand = classify(self);
    if (operand.kind == OperandKind::nonlinear) return new_nlexpr(borrow(root_of(self)));
    return scaled(operand, 1.0);
}

Ref absolute(PyObject* self) { return unary_node(Op::abs, self); }

[[noreturn]] void refuse_strict(int operation) {
    const char* given = operation == Py_LT ? "<" : ">";
    raise(PyExc_TypeError,
          "'%s' makes no constraint, since a strict inequality has no closed set of solutions: "
          "write '%s=', with a small margin on one side where equality must be kept out",
          given, given);
}

[[noreturn]] void refuse_inequality() {
    Ref error_class = import_name("taviropy._exception", "TaviroError");
    Ref error = checked(PyObject_CallFunction(
        error_class.get(), "is", 0,
        "Inequality constraints not supported: use <=, >= or ==; whether two variables differ is "
        "told by 'not (a == b)'"));
    PyErr_SetObject(error_class.get(), error.get());
    throw PythonError();
}

Ref compare(PyObject* self, PyObject* other, int operation) {
    Ref held_self = borrow(self), held_other = borrow(other);  // as in a Pair
    const bool strict = operation == Py_LT || operation == Py_GT;
    if (classify(other).kind == OperandKind::other && (strict || !is_mnlexpr(other))) {
        if (!is_array_operand(other)) return not_implemented();
        if (Ref result = compare_with_array(self, other, operation)) return result;
    }
    if (strict) refuse_strict(operation);
    if (operation == Py_NE) refuse_inequality();
    const char* sense = operation == Py_LE ? "<" : operation == Py_GE ? ">" : "=";
    return new_tempconstr(self, sense, other);
}

template <Op op>
Ref function_of(PyObject* self, PyObject*) {
    return unary_node(op, self);
}

#define FUNCTION_METHOD(name, text)                                                       \
    {#name, method<function_of<Op::name>>(), METH_NOARGS,                                 \
     #name "($self, /)\n--\n\nThe " text " of the expression, as an NLExpr. numpy." #name \
           " calls it."}

PyMethodDef function_methods[] = {
    FUNCTION_METHOD(exp, "exponential"),  FUNCTION_METHOD(log, "natural logarithm"),
    FUNCTION_METHOD(sqrt, "square root"), FUNCTION_METHOD(sin, "sine"),
    FUNCTION_METHOD(cos, "cosine"),       FUNCTION_METHOD(tan, "tangent"),
};
#undef FUNCTION_METHOD

}  // namespace

double reciprocal(double number) {
    if (number == 0.0) raise(PyExc_ZeroDivisionError, "float division by zero");
    return 1.0 / number;
}

Ref tree_of(const Operand& operand) {
    switch (operand.kind) {
        case OperandKind::number:
            return constant_node(operand.number);
        case OperandKind::var:
            return var_node(operand.object);
        case OperandKind::linear:
            return linexpr_tree(operand.object);
        case OperandKind::quadratic:
            return quadexpr_tree(operand.object);
        case OperandKind::nonlinear:
            return borrow(root_of(operand.object));
        default:
            raise(PyExc_TypeError,
                  "Unsupported operand of type '%s': expected a number, Var, LinExpr, QuadExpr or "
                  "NLExpr",
                  Py_TYPE(operand.object)->tp_name);
    }
}

Ref add(PyObject* left, PyObject* right) { return sum(Operator::add, left, right, 1.0); }

Ref subtract(PyObject* left, PyObject* right) { return sum(Operator::subtract, left, right, -1.0); }

Ref multiply(PyObject* left, PyObject* right) {
    Pair pair(left, right);
    if (pair.is_foreign()) return operate_with_array(Operator::multiply, left, right);
    return product(pair);
}

Ref divide(PyObject* left, PyObject* right) {
    Pair pair(left, right);
    if (pair.is_foreign()) return operate_with_array(Operator::divide, left, right);
    if (pair.right.kind != OperandKind::number || pair.left.kind == OperandKind::nonlinear)
        return pair.node(Op::divide);
    return scaled(pair.left, reciprocal(pair.right.number));
}

Ref power(PyObject* left, PyObject* right, PyObject* modulus) {
    if (modulus != Py_None) return not_implemented();
    Pair pair(left, right);
    if (pair.is_foreign()) return operate_with_array(Operator::power, left, right);
    if (pair.right.kind != OperandKind::number || pair.right.number != 2.0)
        return pair.node(Op::pow);
    if (pair.left.kind == OperandKind::nonlinear) return unary_node(Op::square, left);
    return product(Pair(left, left));
}

std::vector<PyType_Slot> with_operators(std::vector<PyType_Slot> slots) {
    slots.insert(slots.end(), {{Py_nb_add, slot<add>()},
                               {Py_nb_subtract, slot<subtract>()},
                               {Py_nb_multiply, slot<multiply>()},
                               {Py_nb_true_divide, slot<divide>()},
                               {Py_nb_power, slot<power>()},
                               {Py_nb_negative, slot<negative>()},
                               {Py_nb_positive, slot<positive>()},
                               {Py_nb_absolute, slot<absolute>()},
                               {Py_tp_richcompare, slot<compare>()},
                               {0, nullptr}});
    return slots;
}

void add_array_priority(PyTypeObject* type) {
    Ref priority = checked(PyLong_FromLong(100));  // as the array-shaped classes have
    check(PyObject_SetAttrString(as_object(type), "__array_priority__", priority.get()));
}

void add_function_methods(PyTypeObject* type) {
    for (PyMethodDef& definition : function_methods) {
        Ref descriptor = checked(PyDescr_NewMethod(type, &definition));
        check(PyObject_SetAttrString(as_object(type), definition.ml_name, descriptor.get()));
    }
}

}  // namespace taviropy
