// TempConstr: a comparison on its way to a model; and GenExpr.
#include "scalars.hpp"

namespace taviropy {

namespace {

TempConstrObject* self_of(PyObject* self) { return reinterpret_cast<TempConstrObject*>(self); }

Ref make(PyTypeObject* type, PyObject* lhs, PyObject* sense, PyObject* rhs) {
    Ref self = checked(type->tp_alloc(type, 0));
    self_of(self.get())->lhs = Py_NewRef(lhs);
    self_of(self.get())->sense = Py_NewRef(sense);
    self_of(self.get())->rhs = Py_NewRef(rhs);
    return self;
}

Ref TempConstr_new(PyTypeObject* type, PyObject* args, PyObject* kwargs) {
    static const char* keywords[] = {"lhs", "sense", "rhs", nullptr};
    PyObject *lhs, *sense, *rhs;
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OOO:TempConstr", const_cast<char**>(keywords),
                                     &lhs, &sense, &rhs))
        throw PythonError();
    return make(type, lhs, sense, rhs);
}

int TempConstr_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(self_of(self)->lhs);
    Py_VISIT(self_of(self)->sense);
    Py_VISIT(self_of(self)->rhs);
    return 0;
}

int TempConstr_clear(PyObject* self) {
    Py_CLEAR(self_of(self)->lhs);
    Py_CLEAR(self_of(self)->sense);
    Py_CLEAR(self_of(self)->rhs);
    return 0;
}

void TempConstr_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    TempConstr_clear(self);
    type->tp_free(self);
    Py_DECREF(type);
}

bool is_equality(PyObject* sense) {
    return PyUnicode_Check(sense) && PyUnicode_CompareWithASCIIString(sense, "=") == 0;
}

int TempConstr_bool(PyObject* self) {
    TempConstrObject* constr = self_of(self);
    if (is_equality(constr->sense) && is_var(constr->lhs) && is_var(constr->rhs))
        return same_var(constr->lhs, constr->rhs);
    raise(
        PyExc_TypeError,
        "A constraint has no truth value: it can't stand in 'and', 'or', 'not', 'if', or in a "
        "chained comparison such as 'a <= x <= b'. Write each constraint on its own, 'a <= x' and "
        "'x <= b', and hand each to addConstr. Where NumPy compares an array of expressions with "
        "numbers, it asks for truth values too: make one side a matrix expression, such as "
        "'array <= tv.MLinExpr.zeros(array.shape) + 1'");
}

Ref TempConstr_repr(PyObject* self) {
    TempConstrObject* constr = self_of(self);
    const char* extra = PyUnicode_Check(constr->sense) ? "=" : "";  // "<" is shown as "<="
    return checked(PyUnicode_FromFormat("<TempConstr: %R %S%s %R>", constr->lhs, constr->sense,
                                        extra, constr->rhs));
}

PyMemberDef members[] = {
    {"lhs", Py_T_OBJECT_EX, offsetof(TempConstrObject, lhs), Py_READONLY, "The left side."},
    {"sense", Py_T_OBJECT_EX, offsetof(TempConstrObject, sense), Py_READONLY,
     "\"<\", \">\" or \"=\", as in TVO.LESS_EQUAL, TVO.GREATER_EQUAL and TVO.EQUAL."},
    {"rhs", Py_T_OBJECT_EX, offsetof(TempConstrObject, rhs), Py_READONLY, "The right side."},
    {nullptr},
};

// TempConstr[MConstr] in an annotation names what addConstr makes of it.
PyMethodDef methods[] = {
    {"__class_getitem__", Py_GenericAlias, METH_O | METH_CLASS,
     "For annotations: TempConstr[MConstr] becomes an MConstr in Model.addConstr."},
    {nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char*>(
                    R"(TempConstr(lhs, sense, rhs)
--

A comparison of expressions, as <=, >= and == make it, on its way to Model.addConstr.)")},
    {Py_tp_new, slot<TempConstr_new>()},
    {Py_tp_dealloc, reinterpret_cast<void*>(TempConstr_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(TempConstr_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(TempConstr_clear)},
    {Py_tp_repr, slot<TempConstr_repr>()},
    {Py_nb_bool, slot<TempConstr_bool>()},
    {Py_tp_members, members},
    {Py_tp_methods, methods},
    {0, nullptr},
};

PyType_Spec spec = {"taviropy._core.TempConstr", sizeof(TempConstrObject), 0,
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC, slots};

PyType_Slot genexpr_slots[] = {
    {Py_tp_doc,
     const_cast<char*>("The base of general-constraint expressions; none are made yet.")},
    {0, nullptr},
};

PyType_Spec genexpr_spec = {"taviropy._core.GenExpr", sizeof(PyObject), 0,
                            Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE, genexpr_slots};

}  // namespace

Ref new_tempconstr(PyObject* lhs, const char* sense, PyObject* rhs) {
    Ref text = checked(PyUnicode_InternFromString(sense));
    return make(types.tempconstr, lhs, text.get(), rhs);
}

void ready_tempconstr(PyObject* module) {
    types.tempconstr = ready_type(module, &spec);
    types.genexpr = ready_type(module, &genexpr_spec);
}

}  // namespace taviropy
