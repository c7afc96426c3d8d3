// Var, Constr, QConstr and GenConstr: handles on the elements of a model.
#include "arithmetic.hpp"
#include "attributes.hpp"
#include "registry.hpp"

namespace taviropy {

namespace {

/// Attributes start with a capital letter; all other names are the type's own.
bool names_attribute(PyObject* name) {
    if (!PyUnicode_Check(name) || PyUnicode_GET_LENGTH(name) == 0) return false;
    Py_UCS4 first = PyUnicode_READ_CHAR(name, 0);
    return first >= 'A' && first <= 'Z';
}

void Handle_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    Py_XDECREF(as_handle(self)->model);
    type->tp_free(self);
    Py_DECREF(type);
}

Ref Handle_getattribute(PyObject* self, PyObject* name) {
    return read_attribute(as_handle(self), name);
}

/// True where the type has no such name, and none that is private: the user meant another one, and
/// the look-up of attributes tells which.
bool is_mistaken(PyObject* self, PyObject* name) {
    return PyErr_ExceptionMatches(PyExc_AttributeError) && PyUnicode_Check(name) &&
           PyUnicode_GET_LENGTH(name) > 0 && PyUnicode_READ_CHAR(name, 0) != '_' &&
           !_PyType_Lookup(Py_TYPE(self), name);
}

/// Sets the error for a mistaken name, which the look-up of attributes makes.
void refuse_mistaken(PyObject* self, PyObject* name) {
    PyErr_Clear();
    Ref attrutil(PyImport_ImportModule("taviropy._attrutil"));
    if (attrutil) Ref info(PyObject_CallMethod(attrutil.get(), "_getattrinfo", "OO", self, name));
}

/// Libraries ask elements for names that make arrays, so to have none must cost no throw.
PyObject* Handle_getattro(PyObject* self, PyObject* name) {
    if (names_attribute(name)) return Guarded<Handle_getattribute>::call(self, name);
    PyObject* found = PyObject_GenericGetAttr(self, name);
    if (!found && is_mistaken(self, name)) refuse_mistaken(self, name);
    return found;
}

void Handle_setattro(PyObject* self, PyObject* name, PyObject* value) {
    if (!names_attribute(name)) {
        if (PyObject_GenericSetAttr(self, name, value) == 0) return;
        if (!is_mistaken(self, name)) throw PythonError();
        PyErr_Clear();
    }
    write_attribute(as_handle(self), name, value);
}

Py_hash_t Handle_hash(PyObject* self) {
    HandleObject* handle = as_handle(self);
    std::size_t value = reinterpret_cast<std::uintptr_t>(handle->model) >> 4;
    value = (value * 8 + handle->kind) * 0x9E3779B97F4A7C15ull + static_cast<uint32_t>(handle->id);
    Py_hash_t hash = static_cast<Py_hash_t>(value ^ (value >> 32));
    return hash == -1 ? -2 : hash;
}

/// Equality of constraints; variables compare as expressions do.
Ref Handle_richcompare(PyObject* self, PyObject* other, int operation) {
    if ((operation != Py_EQ && operation != Py_NE) || !is_handle(other)) return not_implemented();
    bool same = same_element(as_handle(self), as_handle(other));
    return checked(PyBool_FromLong(same == (operation == Py_EQ)));
}

Ref Handle_repr(PyObject* self) {
    HandleObject* handle = as_handle(self);
    int32_t number = handle_number(handle);
    const char* state = number == kWaiting ? " *awaiting update*" : number < 0 ? " (removed)" : "";
    Ref name = element_name(handle);
    return checked(PyUnicode_FromFormat("<%s %U%s>", kind_name(handle->kind), name.get(), state));
}

/// A variable in an expression is called by its name alone.
Ref Handle_str(PyObject* self) {
    return as_handle(self)->kind == kVar ? element_name(as_handle(self)) : Handle_repr(self);
}

Ref Handle_getAttr(PyObject* self, PyObject* name) { return read_attribute(as_handle(self), name); }

Ref Handle_setAttr(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    check_count("setAttr", nargs, 2, 2);
    write_attribute(as_handle(self), args[0], args[1]);
    return none();
}

Ref Handle_dir(PyObject* self, PyObject*) {
    Ref names = checked(PyObject_Dir(as_object(Py_TYPE(self))));
    Ref attributes = attribute_names(as_handle(self));
    return checked(PySequence_Concat(names.get(), attributes.get()));
}

Ref Handle_same(PyObject* self, PyObject*) { return borrow(self); }

Ref Handle_deepcopy(PyObject* self, PyObject* memo) { return deep_copy(self, memo); }

Ref Handle_cmodel(PyObject* self, void*) { return model_of(as_handle(self)->model); }

Ref Handle_index(PyObject* self, void*) {
    return checked(PyLong_FromLong(handle_number(as_handle(self))));
}

#define KIND_DOC(name, index, what)                                                         \
    name " objects are handles on the " what                                                \
         " of a model, made by the model alone. Two handles on one\n"                       \
         "element are equal and have one hash. Attributes are read and set by name; " index \
         " is -1 for an element\nthat waits for an update, and -2 for a removed one."

PyDoc_STRVAR(getAttr_doc,
             R"(getAttr($self, attrname, /)
--

ROUTINE:
    getAttr(attrname)

PURPOSE:
    Reads an attribute of the element.

ARGUMENTS:
    attrname (str): name of an attribute of this kind of element.

RETURN VALUE:
    The value, a float, an int or a str.

EXAMPLE:
    bound = v.getAttr("LB")   # as v.LB

NOTES:
    AttributeError for an unknown name; TaviroError where the element is not in the
    model, or where there is no solution to read from.)");

PyDoc_STRVAR(setAttr_doc,
             R"(setAttr($self, attrname, value, /)
--

ROUTINE:
    setAttr(attrname, value)

PURPOSE:
    Sets an attribute of the element.

ARGUMENTS:
    attrname (str): name of a settable attribute of this kind of element.
    value: the new value, of the attribute's type.

EXAMPLE:
    v.setAttr("LB", 1.0)   # as v.LB = 1.0

NOTES:
    AttributeError for an unknown name or one that can't be set; TaviroError for a value
    that does not fit.)");

PyMethodDef methods[] = {
    {"getAttr", method<Handle_getAttr>(), METH_O, getAttr_doc},
    {"setAttr", method<Handle_setAttr>(), METH_FASTCALL, setAttr_doc},
    {"__dir__", method<Handle_dir>(), METH_NOARGS, nullptr},
    {"__copy__", method<Handle_same>(), METH_NOARGS,
     R"(__copy__($self, /)
--

The handle itself: it never changes.)"},
    {"__deepcopy__", method<Handle_deepcopy>(), METH_O,
     R"(__deepcopy__($self, memo, /)
--

The handle itself; where its model is copied along, and comes first, that on the copy's element.)"},
    {nullptr},
};

struct KindTables {
    PyGetSetDef getset[3];

    explicit KindTables(const char* index_name)
        : getset{{"_cmodel", reinterpret_cast<getter>(&Guarded<Handle_cmodel>::call), nullptr,
                  "The model.", nullptr},
                 {index_name, reinterpret_cast<getter>(&Guarded<Handle_index>::call), nullptr,
                  "Index in the model: -1 while it waits for an update, -2 once removed.", nullptr},
                 {nullptr}} {}
};

KindTables var_tables("_colno"), constr_tables("_rowno"), qconstr_tables("_qconstrno"),
    genconstr_tables("_genconstrno");

/// The slots that all kinds share.
std::vector<PyType_Slot> handle_slots(const char* doc, KindTables& tables) {
    return {{Py_tp_doc, const_cast<char*>(doc)},
            {Py_tp_dealloc, reinterpret_cast<void*>(Handle_dealloc)},
            {Py_tp_getattro, reinterpret_cast<void*>(Handle_getattro)},
            {Py_tp_setattro, slot<Handle_setattro>()},
            {Py_tp_hash, slot<Handle_hash>()},
            {Py_tp_repr, slot<Handle_repr>()},
            {Py_tp_str, slot<Handle_str>()},
            {Py_tp_methods, methods},
            {Py_tp_getset, tables.getset}};
}

PyTypeObject* ready_kind(PyObject* module, const char* name,
                         const std::vector<PyType_Slot>& slots) {
    PyType_Spec spec = {name, sizeof(HandleObject), 0,
                        Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION,
                        const_cast<PyType_Slot*>(slots.data())};
    return ready_type(module, &spec);
}

PyTypeObject* ready_constraint(PyObject* module, const char* name, const char* doc,
                               KindTables& tables) {
    std::vector<PyType_Slot> slots = handle_slots(doc, tables);
    slots.push_back({Py_tp_richcompare, slot<Handle_richcompare>()});
    slots.push_back({0, nullptr});
    return ready_kind(module, name, slots);
}

}  // namespace

Ref new_handle(PyObject* model, ElementKind kind, int32_t id) {
    Ref self(PyObject_New(PyObject, handle_type(kind)));
    if (!self) throw PythonError();
    HandleObject* handle = as_handle(self.get());
    handle->model = Py_NewRef(model);
    handle->id = id;
    handle->kind = kind;
    return self;
}

Ref deep_copy(PyObject* handle, PyObject* memo) {
    if (!PyDict_Check(memo)) return borrow(handle);
    const HandleObject* fields = as_handle(handle);
    Ref key = checked(PyLong_FromVoidPtr(fields->model));
    PyObject* copy = PyDict_GetItemWithError(memo, key.get());
    if (!copy && PyErr_Occurred()) throw PythonError();
    if (!copy) check(PyDict_SetItem(memo, key.get(), fields->model));
    if (!copy || copy == fields->model || !is_model_core(copy)) return borrow(handle);
    if (fields->id >= registry_of(copy, fields->kind).next_id())
        raise(PyExc_RuntimeError, "the model got new elements while it was copied");
    return new_handle(copy, static_cast<ElementKind>(fields->kind), fields->id);
}

void deep_copy_vars(PyObject* list, PyObject* memo) {
    for (Py_ssize_t k = 0; k < PyList_GET_SIZE(list); ++k) {
        Ref var = borrow(PyList_GET_ITEM(list, k));
        if (is_var(var.get())) check(PyList_SetItem(list, k, deep_copy(var.get(), memo).release()));
    }
}

PyTypeObject* handle_type(ElementKind kind) {
    switch (kind) {
        case kVar:
            return types.var;
        case kConstr:
            return types.constr;
        case kQConstr:
            return types.qconstr;
        default:
            return types.genconstr;
    }
}

int32_t handle_number(const HandleObject* handle) {
    return registry_of(handle->model, handle->kind).number(handle->id);
}

void ready_handles(PyObject* module) {
    std::vector<PyType_Slot> slots =
        with_operators(handle_slots(KIND_DOC("Var", "_colno", "variables"), var_tables));
    types.var = ready_kind(module, "taviropy._core.Var", slots);
    add_array_priority(types.var);
    add_function_methods(types.var);
    types.constr =
        ready_constraint(module, "taviropy._core.Constr",
                         KIND_DOC("Constr", "_rowno", "linear constraints"), constr_tables);
    types.qconstr = ready_constraint(module, "taviropy._core.QConstr",
                                     KIND_DOC("QConstr", "_qconstrno", "quadratic constraints"),
                                     qconstr_tables);
    types.genconstr = ready_constraint(module, "taviropy._core.GenConstr",
                                       KIND_DOC("GenConstr", "_genconstrno", "general constraints"),
                                       genconstr_tables);
}

}  // namespace taviropy
