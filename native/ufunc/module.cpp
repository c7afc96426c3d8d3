// The module taviropy._ufunc: how the matrix classes answer NumPy's universal functions.
//
// An array on the left of an operator asks the class of the right operand for `__array_ufunc__`. A
// class that has one is called with the operator's function, np.multiply for `array * x`; the same
// call comes from np.multiply(array, x) itself. Both go back to the operator's method, so that
// `array * x` is what `MVar.__rmul__` makes of it. All other universal functions are left to a
// Python function, the fallback.
#include <array>
#include <string_view>

#include "base/errors.hpp"
#include "base/python.hpp"

namespace taviropy {

using namespace base;

namespace {

enum class Kind { arithmetic, order, equality };

/// An operator with the universal function behind it.
struct Operator {
    const char* ufunc;
    const char* symbol;
    const char* forward;    ///< method of the left operand
    const char* reflected;  ///< method of the right operand
    Kind kind = Kind::arithmetic;
    PyObject* ufunc_object = nullptr;  // these three are kept for good
    PyObject* forward_name = nullptr;
    PyObject* reflected_name = nullptr;
};

std::array operators = {
    Operator{"multiply", "*", "__mul__", "__rmul__"},
    Operator{"add", "+", "__add__", "__radd__"},
    Operator{"subtract", "-", "__sub__", "__rsub__"},
    Operator{"matmul", "@", "__matmul__", "__rmatmul__"},
    Operator{"less_equal", "<=", "__le__", "__ge__", Kind::order},
    Operator{"greater_equal", ">=", "__ge__", "__le__", Kind::order},
    Operator{"equal", "==", "__eq__", "__eq__", Kind::equality},
    Operator{"divide", "/", "__truediv__", "__rtruediv__"},
    Operator{"power", "** or pow()", "__pow__", "__rpow__"},
    Operator{"not_equal", "!=", "__ne__", "__ne__", Kind::equality},
    Operator{"less", "<", "__lt__", "__gt__", Kind::order},
    Operator{"greater", ">", "__gt__", "__lt__", Kind::order},
};

void look_up_ufuncs() {
    Ref numpy = checked(PyImport_ImportModule("numpy"));
    for (Operator& entry : operators) {
        Ref forward = checked(PyUnicode_InternFromString(entry.forward));
        Ref reflected = checked(PyUnicode_InternFromString(entry.reflected));
        entry.ufunc_object = checked(PyObject_GetAttrString(numpy.get(), entry.ufunc)).release();
        entry.forward_name = forward.release();
        entry.reflected_name = reflected.release();
    }
}

const Operator* operator_of(PyObject* ufunc) {
    if (!operators.back().ufunc_object) look_up_ufuncs();
    for (const Operator& entry : operators)
        if (entry.ufunc_object == ufunc) return &entry;
    return nullptr;
}

/// Whether `axes` is what NumPy adds to the in-place matrix product.
bool is_axes_of_matmul(PyObject* axes) {
    Ref matrix = checked(Py_BuildValue("[(ii)(ii)(ii)]", -2, -1, -2, -1, -2, -1));
    Ref vector = checked(Py_BuildValue("[(i)(ii)(i)]", -1, -2, -1, -1));
    for (PyObject* known : {matrix.get(), vector.get()}) {
        int equal = PyObject_RichCompareBool(axes, known, Py_EQ);
        check(equal);
        if (equal) return true;
    }
    return false;
}

/// `array += x` calls np.add(array, x, out=(array,)).
bool is_in_place(const Operator& entry, PyObject* left, PyObject* keywords) {
    if (entry.kind != Kind::arithmetic) return false;
    PyObject* out = PyDict_GetItemString(keywords, "out");
    if (!out || !PyTuple_Check(out) || PyTuple_GET_SIZE(out) != 1 ||
        PyTuple_GET_ITEM(out, 0) != left)
        return false;
    if (PyDict_GET_SIZE(keywords) == 1) return true;
    Ref axes(Py_XNewRef(PyDict_GetItemString(keywords, "axes")));
    return axes && PyDict_GET_SIZE(keywords) == 2 && is_axes_of_matmul(axes.get());
}

/// Python's own words for operands that don't go together.
[[noreturn]] void refuse(const Operator& entry, bool in_place, PyObject* left, PyObject* right) {
    const char* first = Py_TYPE(left)->tp_name;
    const char* second = Py_TYPE(right)->tp_name;
    if (entry.kind == Kind::order) {
        const bool is_strict = entry.symbol[1] == '\0';
        Ref note = checked(PyUnicode_FromString(
            is_strict ? "Use <= or >=: models have no strict inequalities. For a maximum add a "
                        "variable t with t >= each."
                      : "Bound a variable instead: y == expression, and y <= number."));
        PyErr_Format(PyExc_TypeError,
                     "'%s' not supported between instances of '%.100s' and '%.100s'", entry.symbol,
                     first, second);
        raise_with_note(note.get());
    }
    const bool is_power = entry.symbol[0] == '*' && entry.symbol[1] == '*';
    raise(PyExc_TypeError, "unsupported operand type(s) for %s%s: '%.100s' and '%.100s'",
          in_place && is_power ? "**" : entry.symbol, in_place ? "=" : "", first, second);
}

bool is_undefined_order(PyObject* method);

/// Whether the class of an operand is one of those that lack a comparison.
bool lacks(PyObject* operand, const char* name) {
    Ref method(PyObject_GetAttrString(as_object(Py_TYPE(operand)), name));
    if (!method) PyErr_Clear();
    return method && is_undefined_order(method.get());
}

/// A comparison that a class lacks. Beside an array or a number it raises what Python would. An
/// array's turn would come next, and its function could not tell which operand stood where; a
/// number has none, and with it people are told what to do.
template <const char* const& name>
Ref undefined_order(PyObject* self, PyObject* other) {
    bool is_data = PyLong_CheckExact(other) || PyFloat_CheckExact(other);
    for (const char* kind : {"ndarray", "generic"}) {
        if (is_data) break;
        const int is_array = PyObject_IsInstance(other, import_name("numpy", kind).get());
        check(is_array);
        is_data = is_array;
    }
    for (const Operator& entry : operators) {
        if (entry.kind != Kind::order || std::string_view(entry.forward) != name) continue;
        if (is_data || lacks(other, entry.reflected)) refuse(entry, false, self, other);
    }
    return not_implemented();
}

const char* const lt = "__lt__";
const char* const le = "__le__";
const char* const gt = "__gt__";
const char* const ge = "__ge__";
PyMethodDef undefined_orders[] = {
    {lt, method<undefined_order<lt>>(), METH_O, nullptr},
    {le, method<undefined_order<le>>(), METH_O, nullptr},
    {gt, method<undefined_order<gt>>(), METH_O, nullptr},
    {ge, method<undefined_order<ge>>(), METH_O, nullptr},
};

bool is_undefined_order(PyObject* method) {
    if (!Py_IS_TYPE(method, &PyMethodDescr_Type)) return false;
    const PyMethodDef* def = reinterpret_cast<PyMethodDescrObject*>(method)->d_method;
    return std::begin(undefined_orders) <= def && def < std::end(undefined_orders);
}

/// define_order(cls): gives the class those of <, <=, > and >= that it lacks.
Ref define_order(PyObject*, PyObject* cls) {
    if (!PyType_Check(cls)) raise(PyExc_TypeError, "a class is required");
    for (PyMethodDef& def : undefined_orders) {
        Ref own = checked(PyObject_GetAttrString(cls, def.ml_name));
        Ref common = checked(PyObject_GetAttrString(as_object(&PyBaseObject_Type), def.ml_name));
        if (own.get() != common.get()) continue;
        Ref method = checked(PyDescr_NewMethod(reinterpret_cast<PyTypeObject*>(cls), &def));
        check(PyObject_SetAttrString(cls, def.ml_name, method.get()));
    }
    return none();
}

/// type(self).name(self, other); NotImplemented where the class has no such method.
Ref call_method(PyObject* self, PyObject* name, PyObject* other) {
    Ref method(PyObject_GetAttr(as_object(Py_TYPE(self)), name));
    if (!method) {
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw PythonError();
        PyErr_Clear();
        return not_implemented();
    }
    if (is_undefined_order(method.get())) return not_implemented();
    PyObject* args[] = {self, other};
    return checked(PyObject_Vectorcall(method.get(), args, 2, nullptr));
}

/// Whether an operand has a say of its own about universal functions; NumPy asks it next.
bool is_asked_next(PyObject* operand) {
    Ref own(PyObject_GetAttrString(as_object(Py_TYPE(operand)), "__array_ufunc__"));
    if (!own) {
        PyErr_Clear();
        return false;
    }
    Ref ndarray = import_name("numpy", "ndarray");
    Ref common = field(ndarray.get(), "__array_ufunc__");
    return own.get() != common.get();
}

/// A list counts as the array of its elements, as in all functions of NumPy.
Ref as_operand(PyObject* operand) {
    if (!PyList_Check(operand) && !PyTuple_Check(operand)) return borrow(operand);
    Ref asarray = import_name("numpy", "asarray");
    return checked(PyObject_CallOneArg(asarray.get(), operand));
}

Ref apply(const Operator& entry, bool in_place, PyObject* block, PyObject* left, PyObject* right) {
    const bool is_left = left == block;
    Ref other = as_operand(is_left ? right : left);
    Ref result =
        call_method(block, is_left ? entry.forward_name : entry.reflected_name, other.get());
    if (result.get() == Py_NotImplemented && !is_asked_next(other.get())) {
        if (entry.kind != Kind::equality) refuse(entry, in_place, left, right);
        const bool is_equal = entry.symbol[0] == '=';
        return borrow((left == right) == is_equal ? Py_True : Py_False);  // as Python has it
    }
    return result;
}

struct ArrayUfunc {
    PyObject_HEAD PyObject* fallback;
};

/// Called as a function (block, ufunc, method, *inputs, **keywords).
Ref call(PyObject* self, PyObject* args, PyObject* keywords) {
    if (PyTuple_GET_SIZE(args) == 5) {
        PyObject* left = PyTuple_GET_ITEM(args, 3);
        const Operator* entry = operator_of(PyTuple_GET_ITEM(args, 1));
        PyObject* method = PyTuple_GET_ITEM(args, 2);
        if (entry && PyUnicode_Check(method) &&
            PyUnicode_CompareWithASCIIString(method, "__call__") == 0) {
            const bool is_plain = !keywords || PyDict_GET_SIZE(keywords) == 0;
            if (is_plain || is_in_place(*entry, left, keywords))
                return apply(*entry, !is_plain, PyTuple_GET_ITEM(args, 0), left,
                             PyTuple_GET_ITEM(args, 4));
        }
    }
    return checked(PyObject_Call(reinterpret_cast<ArrayUfunc*>(self)->fallback, args, keywords));
}

/// The class has it; on an instance it is None, by which masked arrays and other array classes
/// that ask the instance know that they have to give way.
Ref get(PyObject* self, PyObject* instance, PyObject*) {
    return instance && instance != Py_None ? none() : borrow(self);
}

Ref construct(PyTypeObject* type, PyObject* args, PyObject* keywords) {
    static const char* names[] = {"fallback", nullptr};
    PyObject* fallback = nullptr;
    if (!PyArg_ParseTupleAndKeywords(args, keywords, "O:ArrayUfunc", const_cast<char**>(names),
                                     &fallback))
        throw PythonError();
    Ref self = checked(type->tp_alloc(type, 0));
    reinterpret_cast<ArrayUfunc*>(self.get())->fallback = Py_NewRef(fallback);
    return self;
}

int traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(reinterpret_cast<ArrayUfunc*>(self)->fallback);
    return 0;
}

int clear(PyObject* self) {
    Py_CLEAR(reinterpret_cast<ArrayUfunc*>(self)->fallback);
    return 0;
}

void dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    clear(self);
    type->tp_free(self);
    Py_DECREF(type);
}

constexpr const char* kDoc = R"(ArrayUfunc(fallback)
--

What a class has as its `__array_ufunc__`.

A universal function that stands behind an operator, np.multiply or np.less_equal, is answered by
the operator's method of the class, plain or reflected, in-place operators of an array included;
TypeError where it gives NotImplemented. NumPy calls np.add(a, x, out=a) for `a += x`, so the
result is the new expression and `a` keeps its values. Anything else is what
fallback(block, ufunc, method, *inputs, **keywords) makes of it.)";

PyType_Slot type_slots[] = {
    {Py_tp_doc, const_cast<char*>(kDoc)},
    {Py_tp_new, slot<construct>()},
    {Py_tp_call, slot<call>()},
    {Py_tp_descr_get, slot<get>()},
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(dealloc)},
    {0, nullptr},
};

PyType_Spec type_spec = {"taviropy._ufunc.ArrayUfunc", sizeof(ArrayUfunc), 0,
                         Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC, type_slots};

PyMethodDef functions[] = {{"define_order", method<define_order>(), METH_O,
                            R"(define_order(cls)
--

Gives the class those of <, <=, > and >= that it lacks: a TypeError beside an array, in Python's own words, and NotImplemented beside anything else.)"},
                           {nullptr, nullptr, 0, nullptr}};

void execute(PyObject* module) {
    check(PyModule_AddFunctions(module, functions));
    Ref type = checked(PyType_FromModuleAndSpec(module, &type_spec, nullptr));
    check(PyModule_AddObjectRef(module, "ArrayUfunc", type.get()));
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(&Guarded<execute>::call)},
    {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
    {0, nullptr},
};

PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                          "_ufunc",
                          "How the matrix classes answer NumPy's universal functions.",
                          0,
                          nullptr,
                          slots};

}  // namespace

}  // namespace taviropy

PyMODINIT_FUNC PyInit__ufunc() { return PyModuleDef_Init(&taviropy::definition); }
