// What LinExpr and QuadExpr have in common: methods and slots, written once for both.
//
// A `Type` says what differs: its `Object`, `name` and `kind`, `expected` (what may be added to
// it), `fields` (all references that it holds), `variable_lists`, `copy`, `fill`, `text`, `value`
// and `flatten`.
#pragma once

#include "arithmetic.hpp"
#include "terms.hpp"

namespace taviropy {

template <class Type>
struct TermExpr {
    using Object = typename Type::Object;

    static Object* self_of(PyObject* self) { return reinterpret_cast<Object*>(self); }

    /// Whether an operand can be added in place, without a change of the type.
    static bool fits(const Operand& operand) {
        return operand.kind != OperandKind::other && operand.kind <= Type::kind;
    }

    // ---- construction

    static void dealloc(PyObject* self) {
        PyTypeObject* type = Py_TYPE(self);
        for (PyObject* field : Type::fields(self_of(self))) Py_XDECREF(field);
        type->tp_free(self);
        Py_DECREF(type);
    }

    static void refuse_keywords(Py_ssize_t count) {
        if (count) raise(PyExc_TypeError, "%s() takes no keyword arguments", Type::name);
    }

    static void init(PyObject* self, PyObject* args, PyObject* kwargs) {
        refuse_keywords(kwargs ? PyDict_GET_SIZE(kwargs) : 0);
        Type::fill(self_of(self), PySequence_Fast_ITEMS(args), PyTuple_GET_SIZE(args));
    }

    static Ref vectorcall(PyObject* type, PyObject* const* args, size_t nargsf, PyObject* kwnames) {
        refuse_keywords(kwnames ? PyTuple_GET_SIZE(kwnames) : 0);
        Ref self = Type::make(reinterpret_cast<PyTypeObject*>(type), nullptr, nullptr);
        Py_ssize_t nargs = PyVectorcall_NARGS(nargsf);
        if (nargs) Type::fill(self_of(self.get()), args, nargs);
        return self;
    }

    // ---- in-place operators

    static Ref add_inplace(PyObject* self, PyObject* other, double sign) {
        Operand operand = classify(other);
        if (!fits(operand)) return not_implemented();
        add_to(self_of(self), operand, sign);
        return borrow(self);
    }
    static Ref iadd(PyObject* self, PyObject* other) { return add_inplace(self, other, 1.0); }
    static Ref isub(PyObject* self, PyObject* other) { return add_inplace(self, other, -1.0); }

    static Ref imul(PyObject* self, PyObject* other) {
        Operand operand = classify(other);
        if (operand.kind != OperandKind::number) return not_implemented();
        scale(self_of(self), operand.number);
        return borrow(self);
    }

    static Ref itruediv(PyObject* self, PyObject* other) {
        Operand operand = classify(other);
        if (operand.kind != OperandKind::number) return not_implemented();
        scale(self_of(self), reciprocal(operand.number));
        return borrow(self);
    }

    // ---- methods

    static Ref add(PyObject* self, PyObject* other) {
        Operand operand = classify(other);
        if (!fits(operand))
            raise(PyExc_TypeError,
                  "Cannot add '%s' to a %s in place: expected %s; the operator + makes a new "
                  "expression",
                  Py_TYPE(other)->tp_name, Type::name, Type::expected);
        add_to(self_of(self), operand, 1.0);
        return none();
    }

    static Ref copy(PyObject* self, PyObject*) { return Type::copy(self_of(self)); }

    static Ref deepcopy(PyObject* self, PyObject* memo) {
        Ref copied = Type::copy(self_of(self));
        for (PyObject* list : Type::variable_lists(self_of(copied.get())))
            deep_copy_vars(list, memo);
        return copied;
    }

    static Ref clear(PyObject* self, PyObject*) {
        Type::clear(self_of(self));
        return none();
    }

    static Ref getConstant(PyObject* self, PyObject*) {
        return float_object(linear_part(self_of(self))->constant);
    }
    static Ref getValue(PyObject* self, PyObject*) {
        return float_object(Type::value(self_of(self)));
    }
    static Ref size(PyObject* self, PyObject*) {
        return checked(PyLong_FromSsize_t(view_of(self_of(self)).size));
    }
    static Ref getCoeff(PyObject* self, PyObject* index) {
        return list_item(self_of(self)->coeffs, index, Type::name);
    }
    /// The method that reads one list of variables.
    template <auto list>
    static Ref getVar(PyObject* self, PyObject* index) {
        return list_item(self_of(self)->*list, index, Type::name);
    }

    static Ref mul(PyObject* self, PyObject* factor) {
        scale(self_of(self), number_value(factor, "the factor"));
        return none();
    }

    static Ref flatten(PyObject* self, PyObject*) {
        linear_view(linear_part(self_of(self)));
        view_of(self_of(self));  // all terms stand in the lists, once these match
        return none();
    }

    static Ref normalize(PyObject* self, PyObject*) {
        taviropy::normalize(self_of(self));
        return none();
    }

    static Ref str(PyObject* self) { return Type::text(self_of(self)); }

    static Ref repr(PyObject* self) {
        Ref text = str(self);
        return checked(PyUnicode_FromFormat("<%s: %U>", Type::name, text.get()));
    }

    // ---- the type

    /// The methods of both, and `own` ones.
    static std::vector<PyMethodDef> methods(std::initializer_list<PyMethodDef> own) {
        std::vector<PyMethodDef> all = {
            {"add", method<add>(), METH_O, Type::add_doc},
            {"copy", method<copy>(), METH_NOARGS, Type::copy_doc},
            {"clear", method<clear>(), METH_NOARGS, clear_doc},
            {"getConstant", method<getConstant>(), METH_NOARGS, getConstant_doc},
            {"getValue", method<getValue>(), METH_NOARGS, getValue_doc},
            {"size", method<size>(), METH_NOARGS, Type::size_doc},
            {"getCoeff", method<getCoeff>(), METH_O, Type::getCoeff_doc},
            {"_mul", method<mul>(), METH_O, mul_doc},
            {"_flatten", method<flatten>(), METH_NOARGS, flatten_doc},
            {"_normalize", method<normalize>(), METH_NOARGS, Type::normalize_doc},
            {"__copy__", method<copy>(), METH_NOARGS, "__copy__($self, /)\n--\n\nAs copy()."},
            {"__deepcopy__", method<deepcopy>(), METH_O, deepcopy_doc},
        };
        all.insert(all.end(), own);
        all.push_back({nullptr});
        return all;
    }

    /// Makes the type; `methods` and `members` stay where they are for good.
    static PyTypeObject* ready(PyObject* module, PyMethodDef* methods, PyMemberDef* members) {
        std::vector<PyType_Slot> slots = with_operators({
            {Py_tp_doc, const_cast<char*>(Type::doc)},
            {Py_tp_new, slot<Type::make>()},
            {Py_tp_init, slot<init>()},
            {Py_tp_dealloc, reinterpret_cast<void*>(dealloc)},
            {Py_tp_hash, reinterpret_cast<void*>(PyBaseObject_Type.tp_hash)},
            {Py_tp_repr, slot<repr>()},
            {Py_tp_str, slot<str>()},
            {Py_nb_inplace_add, slot<iadd>()},
            {Py_nb_inplace_subtract, slot<isub>()},
            {Py_nb_inplace_multiply, slot<imul>()},
            {Py_nb_inplace_true_divide, slot<itruediv>()},
            {Py_tp_methods, methods},
            {Py_tp_members, members},
        });
        PyType_Spec spec = {Type::full_name, sizeof(Object), 0,
                            Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE, slots.data()};
        PyTypeObject* type = ready_type(module, &spec);
        type->tp_vectorcall = &Guarded<vectorcall>::call;
        add_array_priority(type);
        add_function_methods(type);
        return type;
    }

    static constexpr const char* clear_doc = R"(clear($self, /)
--

ROUTINE:
    clear()

PURPOSE:
    Removes all terms and sets the constant to 0.0.)";

    static constexpr const char* getConstant_doc = R"(getConstant($self, /)
--

ROUTINE:
    getConstant()

PURPOSE:
    Reads the constant.

RETURN VALUE:
    A float.)";

    static constexpr const char* getValue_doc = R"(getValue($self, /)
--

ROUTINE:
    getValue()

PURPOSE:
    Computes the value of the expression at the last solution.

RETURN VALUE:
    A float.

EXAMPLE:
    m.optimize()
    cost = expr.getValue()

NOTES:
    TaviroError where there is no solution, or none for a variable.)";

    static constexpr const char* mul_doc = R"(_mul($self, value, /)
--

Multiplies in place by a number.)";

    static constexpr const char* flatten_doc = R"(_flatten($self, /)
--

Brings all content into the lists, where it is at all times.)";

    static constexpr const char* deepcopy_doc = R"(__deepcopy__($self, memo, /)
--

As copy(): variables are handles, and stay the same; where their model is copied along, and
comes first, they are the copy's.)";
};

}  // namespace taviropy
