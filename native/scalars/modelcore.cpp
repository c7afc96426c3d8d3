// ModelCore: the native part of a model's data. It makes the handles on elements, which a Numbering
// a kind gives their ids and indices.
// ModelShell: what the public Model is made of, a shell round the data.
//
// Handles hold the data and never the public Model, whose own attributes belong to the user: they
// may hold handles, and no collector could see that circle in an array of objects. The data know
// their Model by a weak reference, and make a new one where the user has dropped it.
#include <structmember.h>

#include <cstring>
#include <limits>

#include "base/arrays.hpp"
#include "elements.hpp"
#include "registry.hpp"
#include "taviro120/taviro120.h"

namespace taviropy {

namespace {

constexpr const char* kCapsuleName = "TVOmodel";
constexpr int kKinds[] = {kVar, kConstr, kQConstr, kGenConstr};
constexpr const char* kCountNames[] = {"NumVars", "NumConstrs", "NumQConstrs", "NumGenConstrs"};

ModelCoreObject* as_core(PyObject* self) { return reinterpret_cast<ModelCoreObject*>(self); }

struct ModelShellObject {
    PyObject_HEAD PyObject* core;  ///< ModelCore, null until `attach`
};

ModelShellObject* as_shell(PyObject* self) { return reinterpret_cast<ModelShellObject*>(self); }

bool is_shell(PyObject* object) { return PyObject_TypeCheck(object, types.modelshell); }

int kind_argument(PyObject* argument) {
    long value = checked(PyLong_AsLong(argument));
    for (int kind : kKinds)
        if (value == kind) return kind;
    raise(PyExc_ValueError,
          "there is no kind %ld of elements: 1 is a variable, 2 a linear, 4 a quadratic and 5 a "
          "general constraint",
          value);
}

// ---- Numbering ----------------------------------------------------------------------------------

Registry& registry(PyObject* self) { return reinterpret_cast<NumberingObject*>(self)->registry; }

void free_handle(PyObject* capsule) {
    TVOfreemodel(static_cast<TVOmodel*>(PyCapsule_GetPointer(capsule, kCapsuleName)));
}

Ref new_numbering(PyObject* handle, const char* count_name) {
    auto* native = static_cast<TVOmodel*>(PyCapsule_GetPointer(handle, kCapsuleName));
    Ref self = checked(types.numbering->tp_alloc(types.numbering, 0));
    auto* fields = reinterpret_cast<NumberingObject*>(self.get());
    fields->handle = Py_NewRef(handle);
    new (&fields->registry) Registry(native, count_name);
    return self;
}

void Numbering_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    registry(self).~Registry();
    Py_XDECREF(reinterpret_cast<NumberingObject*>(self)->handle);
    type->tp_free(self);
    Py_DECREF(type);
}

Ref Numbering_next_id(PyObject* self, PyObject*) {
    return checked(PyLong_FromLong(registry(self).next_id()));
}

Ref Numbering_count(PyObject* self, PyObject*) {
    return checked(PyLong_FromLong(registry(self).count()));
}

Ref Numbering_size(PyObject* self, PyObject*) {
    return checked(PyLong_FromLong(registry(self).size()));
}

Ref Numbering_discard(PyObject* self, PyObject* given) {
    std::vector<int32_t> ids = id_list(given, registry(self).next_id());
    registry(self).discard(ids.data(), static_cast<Py_ssize_t>(ids.size()));
    return none();
}

Ref int32_array(const std::vector<int32_t>& values) {
    FilledArray<int32_t> array("int32", static_cast<Py_ssize_t>(values.size()));
    if (!values.empty()) std::memcpy(array.items, values.data(), values.size() * sizeof(int32_t));
    return std::move(array.array);
}

Ref Numbering_settle(PyObject* self, PyObject*) {
    bool removing = registry(self).has_discarded();
    std::vector<int32_t> kept;
    registry(self).settle(kept);
    return removing ? int32_array(kept) : none();
}

Ref Numbering_numbers(PyObject* self, PyObject* given) {
    const int64_t known = registry(self).next_id();
    Integers ids(given, "the array of ids");
    FilledArray<int32_t> numbers("int32", ids.size());
    ids.each([&](Py_ssize_t k, int64_t id) {
        if (id < 0 || id >= known)
            raise(PyExc_IndexError, "no element has the id %lld: there are %lld",
                  static_cast<long long>(id), static_cast<long long>(known));
        numbers.items[k] = registry(self).number(static_cast<int32_t>(id));
    });
    return std::move(numbers.array);
}

Ref Numbering_live_ids(PyObject* self, PyObject*) {
    std::vector<int32_t> ids;
    ids.reserve(registry(self).size());
    registry(self).each_live([&ids](int32_t id) { ids.push_back(id); });
    return int32_array(ids);
}

Ref Numbering_discarded_ids(PyObject* self, PyObject*) {
    std::vector<int32_t> ids;
    if (registry(self).has_discarded())
        registry(self).each_discarded([&ids](int32_t id) { ids.push_back(id); });
    return int32_array(ids);
}

Ref Numbering_restore(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    check_count("restore", nargs, 3, 3);
    int32_t counts[2];
    for (int k = 0; k < 2; ++k) {
        long count = checked(PyLong_AsLong(args[k]));
        if (count < 0 || count > std::numeric_limits<int32_t>::max())
            raise(PyExc_ValueError, "a model can't hold %ld elements", count);
        counts[k] = static_cast<int32_t>(count);
    }
    if (args[2] == Py_None)
        registry(self).restore(counts[0], counts[1]);
    else
        registry(self).restore(counts[0], counts[1], id_list(args[2], counts[0]));
    return none();
}

Ref Numbering_all_in_place(PyObject* self, PyObject*) {
    return checked(PyBool_FromLong(registry(self).all_in_place()));
}

PyMethodDef numbering_methods[] = {
    {"next_id", method<Numbering_next_id>(), METH_NOARGS,
     "next_id($self, /)\n--\n\nThe id that the next new element will get."},
    {"count", method<Numbering_count>(), METH_NOARGS,
     "count($self, /)\n--\n\nHow many elements are in place."},
    {"size", method<Numbering_size>(), METH_NOARGS,
     "size($self, /)\n--\n\nHow many elements there are, in place and waiting."},
    {"discard", method<Numbering_discard>(), METH_O,
     "discard($self, ids, /)\n--\n\nMarks elements for removal at the next settle(); those "
     "marked or removed before stay so."},
    {"settle", method<Numbering_settle>(), METH_NOARGS,
     "settle($self, /)\n--\n\nThe update: marked elements get the index -2, later ones move up, "
     "waiting ones get the next\nindices.\n\nNone where nothing was removed, else an "
     "int32 ndarray of the places that stay, counted over\nthe elements in place and then those "
     "that waited."},
    {"numbers", method<Numbering_numbers>(), METH_O,
     "numbers($self, ids, /)\n--\n\nThe indices (int32 ndarray) of the elements with these "
     "ids: -1 where an element waits, -2 where\nit was removed."},
    {"live_ids", method<Numbering_live_ids>(), METH_NOARGS,
     "live_ids($self, /)\n--\n\nThe ids (int32 ndarray, rising) of all elements that aren't "
     "removed: those in place first, in\norder of their indices, then those that wait."},
    {"discarded_ids", method<Numbering_discarded_ids>(), METH_NOARGS,
     "discarded_ids($self, /)\n--\n\nThe ids (int32 ndarray, rising) of the elements that the next "
     "settle() removes."},
    {"restore", method<Numbering_restore>(), METH_FASTCALL,
     "restore($self, next_id, count, live_ids, /)\n--\n\nEnters the elements of another Numbering, "
     "as its methods of these names tell them, into a new one; None for live_ids stands for "
     "all.\n\nValueError where they can't be "
     "those of a Numbering, or where this one has elements."},
    {"all_in_place", method<Numbering_all_in_place>(), METH_NOARGS,
     "all_in_place($self, /)\n--\n\nWhether no element was ever removed: then the ids of "
     "elements in place are their indices."},
    {nullptr},
};

PyType_Slot numbering_slots[] = {
    {Py_tp_doc, const_cast<char*>("The ids and indices of a model's elements of one kind. An "
                                  "element gets its id when it is made, and\nits index at the "
                                  "next settle().")},
    {Py_tp_dealloc, reinterpret_cast<void*>(Numbering_dealloc)},
    {Py_tp_methods, numbering_methods},
    {0, nullptr},
};

PyType_Spec numbering_spec = {"taviropy._scalars.Numbering", sizeof(NumberingObject), 0,
                              Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION,
                              numbering_slots};

// ---- ModelCore ----------------------------------------------------------------------------------

Ref ModelCore_new(PyTypeObject* type, PyObject*, PyObject*) {
    TVOmodel* native = TVOnewmodel();
    if (!native) throw std::bad_alloc();
    PyObject* capsule = PyCapsule_New(native, kCapsuleName, free_handle);
    if (!capsule) TVOfreemodel(native);
    Ref handle = checked(capsule), self = checked(type->tp_alloc(type, 0));
    ModelCoreObject* core = as_core(self.get());
    for (int k = 0; k < 4; ++k)
        core->numberings[k] = new_numbering(handle.get(), kCountNames[k]).release();
    core->handle = handle.release();
    return self;
}

int ModelCore_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(as_core(self)->shell);
    Py_VISIT(as_core(self)->new_shell);
    return 0;
}

int ModelCore_clear(PyObject* self) {
    Py_CLEAR(as_core(self)->shell);
    Py_CLEAR(as_core(self)->new_shell);
    return 0;
}

void ModelCore_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    ModelCore_clear(self);
    for (PyObject* numbering : as_core(self)->numberings) Py_XDECREF(numbering);
    Py_XDECREF(as_core(self)->handle);
    type->tp_free(self);
    Py_DECREF(type);
}

Ref ModelCore_handle(PyObject* self, void*) { return borrow(as_core(self)->handle); }

Ref ModelCore_shell(PyObject* self, void*) { return model_of(self); }

Ref ModelCore_numbering(PyObject* self, PyObject* kind) {
    return borrow(as_core(self)->numberings[place_of(kind_argument(kind))]);
}

Ref ModelCore_new_element(PyObject* self, PyObject* kind_object) {
    const auto kind = static_cast<ElementKind>(kind_argument(kind_object));
    return new_element(self, kind);
}

/// Fills an object array with handles, whose ids `id_of` gives by place.
template <class IdOf>
void fill_handles(PyObject* core, int kind, const Buffer& buffer, IdOf id_of) {
    PyObject** slots = static_cast<PyObject**>(buffer->buf);
    for (Py_ssize_t k = 0; k < buffer.size(); ++k) {
        Ref handle = new_handle(core, static_cast<ElementKind>(kind), id_of(k));
        Py_XSETREF(slots[k], handle.release());
    }
}

Ref ModelCore_new_elements(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    check_count("new_elements", nargs, 2, 2);
    return new_elements(self, kind_argument(args[0]), args[1]);
}

Ref ModelCore_elements(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    check_count("elements", nargs, 2, 2);
    int kind = kind_argument(args[0]);
    std::vector<int32_t> ids = id_list(args[1], registry_of(self, kind).next_id());
    Ref size = checked(PyLong_FromSize_t(ids.size()));
    Ref array = new_array("object", size.get());
    Buffer buffer(array.get(), PyBUF_CONTIG);
    fill_handles(self, kind, buffer, [&ids](Py_ssize_t k) { return ids[k]; });
    return array;
}

Ref ModelCore_ids(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    check_count("ids", nargs, 2, 3);
    int kind = kind_argument(args[0]);
    Objects elements(args[1]);
    bool removed_pass = nargs == 3 && args[2] == Py_True;
    FilledArray<int32_t> ids("int32", elements.size());
    elements.each([&](Py_ssize_t k, PyObject* element) {
        ids.items[k] = checked_id(self, kind, element, k, removed_pass);
    });
    return std::move(ids.array);
}

PyMethodDef core_methods[] = {
    {"numbering", method<ModelCore_numbering>(), METH_O,
     "numbering($self, kind, /)\n--\n\nThe Numbering of the elements of a kind."},
    {"new_element", method<ModelCore_new_element>(), METH_O,
     "new_element($self, kind, /)\n--\n\nA handle on a new element of a kind, which waits for an "
     "update. Its id is the next one."},
    {"new_elements", method<ModelCore_new_elements>(), METH_FASTCALL,
     "new_elements($self, kind, shape, /)\n--\n\nAn object ndarray of handles on new elements; "
     "their ids rise in C order.\n\nOverflowError where there would be more than 2147483647 "
     "elements."},
    {"elements", method<ModelCore_elements>(), METH_FASTCALL,
     "elements($self, kind, ids, /)\n--\n\nAn object ndarray, one-dimensional, of handles on the "
     "elements with these ids."},
    {"ids", method<ModelCore_ids>(), METH_FASTCALL,
     "ids($self, kind, elements, removed_pass=False, /)\n--\n\nThe ids (int32 ndarray, "
     "one-dimensional) of the handles in an object ndarray of any strides\n(C order), in a list, "
     "or of one handle.\n\nTypeError for another type; TaviroError for an element of another "
     "model, and for a removed one\nunless removed_pass is True."},
    {nullptr},
};

PyGetSetDef core_getset[] = {
    {"handle", reinterpret_cast<getter>(&Guarded<ModelCore_handle>::call), nullptr,
     "The native handle, a capsule named \"TVOmodel\".", nullptr},
    {"shell", reinterpret_cast<getter>(&Guarded<ModelCore_shell>::call), nullptr,
     "The public Model: the user's own, or a new one where that is gone.", nullptr},
    {nullptr},
};

PyMemberDef core_members[] = {
    {"new_shell", T_OBJECT, offsetof(ModelCoreObject, new_shell), 0,
     "What makes a public Model round the data where the user has dropped it: a function of the "
     "data that\ngives one, attached."},
    {nullptr},
};

PyType_Slot core_slots[] = {
    {Py_tp_doc,
     const_cast<char*>("The native part of a model's data: it numbers the elements of each kind "
                       "(1 variable, 2 linear,\n4 quadratic, 5 general constraint) and "
                       "makes the handles on them, which hold it.")},
    {Py_tp_new, slot<ModelCore_new>()},
    {Py_tp_dealloc, reinterpret_cast<void*>(ModelCore_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(ModelCore_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(ModelCore_clear)},
    {Py_tp_methods, core_methods},
    {Py_tp_members, core_members},
    {Py_tp_getset, core_getset},
    {0, nullptr},
};

PyType_Spec core_spec = {"taviropy._scalars.ModelCore", sizeof(ModelCoreObject), 0,
                         Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC, core_slots};

// ---- ModelShell ---------------------------------------------------------------------------------

int ModelShell_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(as_shell(self)->core);
    return 0;
}

int ModelShell_clear(PyObject* self) {
    Py_CLEAR(as_shell(self)->core);
    return 0;
}

void ModelShell_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    ModelShell_clear(self);
    type->tp_free(self);
    Py_DECREF(type);
}

PyType_Slot shell_slots[] = {
    {Py_tp_doc, const_cast<char*>("What the public Model is made of: it holds the model's data "
                                  "where no attribute of the user's can\ncollide with them.")},
    {Py_tp_dealloc, reinterpret_cast<void*>(ModelShell_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(ModelShell_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(ModelShell_clear)},
    {0, nullptr},
};

PyType_Spec shell_spec = {"taviropy._scalars.ModelShell", sizeof(ModelShellObject), 0,
                          Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
                          shell_slots};

Ref attach(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("attach", nargs, 2, 2);
    if (!is_shell(args[0])) raise(PyExc_TypeError, "attach takes a ModelShell and a ModelCore");
    PyObject* core = model_argument(args[1]);
    Ref shell = checked(PyWeakref_NewRef(args[0], nullptr));
    Py_XSETREF(as_core(core)->shell, shell.release());
    Py_XSETREF(as_shell(args[0])->core, Py_NewRef(core));
    return none();
}

Ref core_of_shell(PyObject* shell) {
    PyObject* core = as_shell(shell)->core;
    if (!core)
        raise(PyExc_TypeError,
              "the %s was not initialized: call super().__init__() first in its __init__",
              Py_TYPE(shell)->tp_name);
    return borrow(core);
}

Ref data_of(PyObject*, PyObject* object) {
    if (is_shell(object)) return core_of_shell(object);
    if (is_handle(object)) return borrow(as_handle(object)->model);
    Ref model(PyObject_GetAttrString(object, "_cmodel"));
    if (!model && !PyErr_ExceptionMatches(PyExc_AttributeError)) throw PythonError();
    if (!model || !is_shell(model.get()))
        raise(PyExc_TypeError, "expected a Model or what belongs to one, not '%s'",
              Py_TYPE(object)->tp_name);
    return core_of_shell(model.get());
}

PyMethodDef functions[] = {
    {"attach", method<attach>(), METH_FASTCALL,
     "attach(model, data, /)\n--\n\nMakes a ModelShell the public Model of a model's data."},
    {"data_of", method<data_of>(), METH_O,
     "data_of(object, /)\n--\n\nThe data of a public Model, of a handle, or of a matrix object by "
     "its `_cmodel`.\n\nTypeError where there are none."},
    {nullptr},
};

}  // namespace

Ref new_element(PyObject* core, ElementKind kind) {
    Registry& registry = registry_of(core, kind);
    const int32_t id = registry.enter(1);
    try {
        return new_handle(core, kind, id);
    } catch (...) {
        registry.withdraw(1);
        throw;
    }
}

Ref new_elements(PyObject* core, int kind, PyObject* shape) {
    Ref array = new_array("object", shape);
    fill_with_new_elements(core, kind, array.get());
    return array;
}

void fill_with_new_elements(PyObject* core, int kind, PyObject* array) {
    Buffer buffer(array, PyBUF_CONTIG);
    Registry& registry = registry_of(core, kind);
    const int32_t first = registry.enter(buffer.size());
    try {
        fill_handles(core, kind, buffer,
                     [first](Py_ssize_t k) { return first + static_cast<int32_t>(k); });
    } catch (...) {
        registry.withdraw(buffer.size());
        throw;
    }
}

Ref model_of(PyObject* core) {
    ModelCoreObject* fields = as_core(core);
    if (fields->shell) {
        PyObject* model = PyWeakref_GetObject(fields->shell);  // borrowed
        if (model != Py_None) return borrow(model);
    }
    if (!fields->new_shell) raise(PyExc_TypeError, "the data have no model, and nothing makes one");
    return checked(PyObject_CallOneArg(fields->new_shell, core));
}

void ready_modelcore(PyObject* module) {
    types.numbering = ready_type(module, &numbering_spec);
    types.modelcore = ready_type(module, &core_spec);
    types.modelshell = ready_type(module, &shell_spec);
    check(PyModule_AddFunctions(module, functions));
}

}  // namespace taviropy
