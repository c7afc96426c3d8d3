// ModelBase: the native part of a model. It numbers the elements and makes their handles.
#include "common/arrays.hpp"
#include "elements.hpp"
#include "registry.hpp"
#include "taviro120.h"

namespace taviropy {

namespace {

constexpr const char* kCapsuleName = "TVOmodel";
constexpr int kKinds[] = {kVar, kConstr, kQConstr, kGenConstr};
constexpr const char* kCountNames[] = {"NumVars", "NumConstrs", "NumQConstrs", "NumGenConstrs"};

ModelObject* as_model(PyObject* self) { return reinterpret_cast<ModelObject*>(self); }

int kind_argument(PyObject* argument) {
    long value = PyLong_AsLong(argument);
    if (value == -1 && PyErr_Occurred()) throw PythonError();
    for (int kind : kKinds)
        if (value == kind) return kind;
    raise(PyExc_ValueError,
          "there is no kind %ld of elements: 1 is a variable, 2 a linear, 4 a quadratic and 5 a "
          "general constraint",
          value);
}

void free_handle(PyObject* capsule) {
    TVOfreemodel(static_cast<TVOmodel*>(PyCapsule_GetPointer(capsule, kCapsuleName)));
}

Ref new_capsule() {
    TVOmodel* native = TVOnewmodel();
    if (!native) throw std::bad_alloc();
    PyObject* capsule = PyCapsule_New(native, kCapsuleName, free_handle);
    if (!capsule) TVOfreemodel(native);
    return checked(capsule);
}

Ref ModelBase_new(PyTypeObject* type, PyObject*, PyObject*) {
    Ref self = checked(type->tp_alloc(type, 0));
    as_model(self.get())->registries = new Registry[4];
    as_model(self.get())->handle = new_capsule().release();
    return self;
}

int ModelBase_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(as_model(self)->handle);
    return 0;
}

void ModelBase_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    delete[] as_model(self)->registries;
    Py_XDECREF(as_model(self)->handle);
    type->tp_free(self);
    Py_DECREF(type);
}

Ref ModelBase_handle(PyObject* self, void*) { return borrow(as_model(self)->handle); }

Ref ModelBase_close(PyObject* self, PyObject*) {
    Py_XSETREF(as_model(self)->handle, Py_NewRef(Py_None));
    return none();
}

Ref ModelBase_new_element(PyObject* self, PyObject* kind_object) {
    int kind = kind_argument(kind_object);
    int32_t id = registry_of(self, kind).enter(1);
    return new_handle(self, static_cast<ElementKind>(kind), id);
}

/// Fills an object array with handles, whose ids `id_of` gives by place.
template <class IdOf>
void fill_handles(PyObject* model, int kind, const Buffer& buffer, IdOf id_of) {
    PyObject** slots = static_cast<PyObject**>(buffer->buf);
    for (Py_ssize_t k = 0; k < buffer.size(); ++k) {
        Ref handle = new_handle(model, static_cast<ElementKind>(kind), id_of(k));
        Py_XSETREF(slots[k], handle.release());
    }
}

Ref ModelBase_new_elements(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    check_count("_new_elements", nargs, 2, 2);
    return new_elements(self, kind_argument(args[0]), args[1]);
}

Ref ModelBase_elements(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    check_count("_elements", nargs, 2, 2);
    int kind = kind_argument(args[0]);
    std::vector<int32_t> ids = id_list(args[1], registry_of(self, kind).next_id());
    Ref size = checked(PyLong_FromSize_t(ids.size()));
    Ref array = new_array("object", size.get());
    Buffer buffer(array.get(), PyBUF_CONTIG);
    fill_handles(self, kind, buffer, [&ids](Py_ssize_t k) { return ids[k]; });
    return array;
}

Ref ModelBase_first_id(PyObject* self, PyObject* kind) {
    return checked(PyLong_FromSsize_t(registry_of(self, kind_argument(kind)).next_id()));
}

Ref ModelBase_ids(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    check_count("_ids", nargs, 2, 3);
    int kind = kind_argument(args[0]);
    Objects elements(args[1]);
    bool removed_pass = nargs == 3 && args[2] == Py_True;
    FilledArray<int32_t> ids("int32", elements.size());
    elements.each([&](Py_ssize_t k, PyObject* element) {
        ids.items[k] = checked_id(self, kind, element, k, removed_pass);
    });
    return std::move(ids.array);
}

Ref ModelBase_discard(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    check_count("_discard", nargs, 2, 2);
    int kind = kind_argument(args[0]);
    Registry& registry = registry_of(self, kind);
    std::vector<int32_t> ids = id_list(args[1], registry.next_id());
    registry.discard(ids.data(), static_cast<Py_ssize_t>(ids.size()));
    return none();
}

void report_count(PyObject* self, int kind) {
    PyObject* capsule = as_model(self)->handle;
    if (capsule == Py_None) return;
    TVOmodel* native = static_cast<TVOmodel*>(PyCapsule_GetPointer(capsule, kCapsuleName));
    for (int k = 0; k < 4; ++k)
        if (kKinds[k] == kind)
            TVOsetintattr(native, kCountNames[k], registry_of(self, kind).count());
}

Ref int32_array(const std::vector<int32_t>& values) {
    FilledArray<int32_t> array("int32", static_cast<Py_ssize_t>(values.size()));
    if (!values.empty()) std::memcpy(array.items, values.data(), values.size() * sizeof(int32_t));
    return std::move(array.array);
}

Ref ModelBase_settle(PyObject* self, PyObject* kind_object) {
    int kind = kind_argument(kind_object);
    Registry& registry = registry_of(self, kind);
    bool removing = registry.has_discarded();
    std::vector<int32_t> kept;
    registry.settle(kept);
    report_count(self, kind);
    return removing ? int32_array(kept) : none();
}

Ref ModelBase_numbers(PyObject* self, PyObject* kind) {
    return int32_array(registry_of(self, kind_argument(kind)).numbers());
}

Ref ModelBase_all_in_place(PyObject* self, PyObject* kind) {
    return checked(PyBool_FromLong(registry_of(self, kind_argument(kind)).all_in_place()));
}

PyMethodDef methods[] = {
    {"_new_element", method<ModelBase_new_element>(), METH_O,
     "_new_element($self, kind, /)\n--\n\nA handle on a new element of a kind, which waits for an "
     "update. Its id is the next one."},
    {"_new_elements", method<ModelBase_new_elements>(), METH_FASTCALL,
     "_new_elements($self, kind, shape, /)\n--\n\nAn object ndarray of handles on new elements; "
     "their ids rise in C order.\n\nOverflowError where there would be more than 2147483647 "
     "elements."},
    {"_elements", method<ModelBase_elements>(), METH_FASTCALL,
     "_elements($self, kind, ids, /)\n--\n\nAn object ndarray, one-dimensional, of handles on the "
     "elements with these ids."},
    {"_first_id", method<ModelBase_first_id>(), METH_O,
     "_first_id($self, kind, /)\n--\n\nThe id that the next new element of a kind will get."},
    {"_ids", method<ModelBase_ids>(), METH_FASTCALL,
     "_ids($self, kind, elements, removed_pass=False, /)\n--\n\nThe ids (int32 ndarray, "
     "one-dimensional) of the handles in an object ndarray of any strides\n(C order), in a list, "
     "or "
     "of one handle.\n\nTypeError for another type; TaviroError for an element of another model, "
     "and for a removed one\nunless removed_pass is True."},
    {"_discard", method<ModelBase_discard>(), METH_FASTCALL,
     "_discard($self, kind, ids, /)\n--\n\nMarks elements for removal at the next _settle; those "
     "marked or removed before stay so."},
    {"_settle", method<ModelBase_settle>(), METH_O,
     "_settle($self, kind, /)\n--\n\nThe update of a kind: marked elements get the index -2, later "
     "ones move up, waiting ones get\nthe next indices.\n\nNone where nothing was removed, else an "
     "int32 ndarray of the places that stay, counted over\nthe elements in place and then those "
     "that waited."},
    {"_numbers", method<ModelBase_numbers>(), METH_O,
     "_numbers($self, kind, /)\n--\n\nA new int32 ndarray of the indices by id: -1 where an "
     "element waits, -2 where it was removed."},
    {"_all_in_place", method<ModelBase_all_in_place>(), METH_O,
     "_all_in_place($self, kind, /)\n--\n\nWhether no element of a kind was ever removed: then the "
     "ids of elements in place are their\nindices."},
    {"_close", method<ModelBase_close>(), METH_NOARGS,
     "_close($self, /)\n--\n\nReleases the native handle; `_handle` is None from then on."},
    {nullptr},
};

PyGetSetDef getset[] = {
    {"_handle", reinterpret_cast<getter>(&Guarded<ModelBase_handle>::call), nullptr,
     "The native handle, a capsule named \"TVOmodel\"; None once the model is closed.", nullptr},
    {nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_doc,
     const_cast<char*>("The native part of a model: it numbers the elements of each kind "
                       "(1 variable, 2 linear,\n4 quadratic, 5 general constraint) and "
                       "makes their handles. `Model` is its subclass.")},
    {Py_tp_new, slot<ModelBase_new>()},
    {Py_tp_dealloc, reinterpret_cast<void*>(ModelBase_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(ModelBase_traverse)},
    {Py_tp_methods, methods},
    {Py_tp_getset, getset},
    {0, nullptr},
};

PyType_Spec spec = {"taviropy._core.ModelBase", sizeof(ModelObject), 0,
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC, slots};

}  // namespace

Ref new_elements(PyObject* model, int kind, PyObject* shape) {
    Registry& registry = registry_of(model, kind);
    Ref array = new_array("object", shape);
    Buffer buffer(array.get(), PyBUF_CONTIG);
    int32_t first = registry.enter(buffer.size());
    try {
        fill_handles(model, kind, buffer,
                     [first](Py_ssize_t k) { return first + static_cast<int32_t>(k); });
    } catch (...) {
        registry.withdraw(buffer.size());
        throw;
    }
    return array;
}

void ready_modelbase(PyObject* module) { types.modelbase = ready_type(module, &spec); }

}  // namespace taviropy
