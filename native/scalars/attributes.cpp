#include "attributes.hpp"

#include "arithmetic.hpp"
#include "base/arrays.hpp"
#include "base/errors.hpp"
#include "operands.hpp"

namespace taviropy {

namespace {

enum Datatype : long { kCharacter = 0, kInteger = 1, kDouble = 2, kString = 3 };

struct AttributeInfo {
    Ref datatype;
    long type;
};

Ref call_attrutil(const char* function, std::initializer_list<PyObject*> arguments) {
    static LazyModule attrutil("taviropy._attrutil");
    Ref callee = attrutil.get(function);
    return checked(PyObject_Vectorcall(callee.get(), arguments.begin(), arguments.size(), nullptr));
}

/// What taviropy.suggestions says of a name that the handle's kind doesn't have, or can't set.
Ref hint(const char* function, HandleObject* handle, PyObject* name) {
    Ref callee = import_name("taviropy.suggestions", function);
    return checked(PyObject_CallFunction(callee.get(), "iO", handle->kind, name));
}

/// Looks up an attribute; AttributeError where it is none of the handle's kind.
AttributeInfo find_attribute(HandleObject* handle, PyObject* name, bool to_set) {
    Ref info = call_attrutil("_getattrinfo", {as_object(handle), name});
    Ref triple = checked(PySequence_Tuple(info.get()));
    PyObject* datatype = nullptr;
    long kind = 0, settable = 0;
    if (!PyArg_ParseTuple(triple.get(), "Oll", &datatype, &kind, &settable)) throw PythonError();
    if (kind != handle->kind) {
        Ref note = hint("for_foreign", handle, name);
        PyErr_Format(PyExc_AttributeError, "'taviropy.%s' object has no attribute '%S'",
                     kind_name(handle->kind), name);
        raise_with_note(note.get());
    }
    if (to_set && !settable) {
        Ref note = hint("for_read_only", handle, name);
        PyErr_Format(PyExc_AttributeError, "Attribute '%S' cannot be set", name);
        raise_with_note(note.get());
    }
    long type = checked(PyLong_AsLong(datatype));
    return {borrow(datatype), type};
}

Ref index_list(PyObject* const* handles, Py_ssize_t size) {
    Ref indices = checked(PyList_New(size));
    for (Py_ssize_t k = 0; k < size; ++k)
        PyList_SET_ITEM(indices.get(), k,
                        checked(PyLong_FromLong(handle_number(variable(handles[k])))).release());
    return indices;
}

Ref plain_value(long type, PyObject* value) {
    switch (type) {
        case kDouble:
            return checked(PyNumber_Float(value));
        case kInteger:
            return checked(PyNumber_Long(value));
        default:
            return checked(PyObject_Str(value));
    }
}

/// Appends the items of an array of doubles; false for anything else.
bool append_doubles(PyObject* array, std::vector<double>& out) {
    if (!is_ndarray(array) || dtype_kind(array) != 'f') return false;
    Buffer buffer(array, PyBUF_RECORDS_RO);
    if (!buffer.holds('d')) return false;
    Walker walker(buffer);
    for (Py_ssize_t k = buffer.size(); k > 0; --k)
        out.push_back(*reinterpret_cast<const double*>(walker.next()));
    return true;
}

void append_items(PyObject* sequence, std::vector<double>& out) {
    Ref items = tuple_of(sequence);
    for (Py_ssize_t k = 0; k < PyTuple_GET_SIZE(items.get()); ++k)
        out.push_back(number_value(PyTuple_GET_ITEM(items.get(), k), "a solution value"));
}

/// Values of one run of variables of one model.
void append_values(PyObject* const* vars, Py_ssize_t size, std::vector<double>& out) {
    Ref name = checked(PyUnicode_InternFromString("X"));
    Ref type = checked(PyLong_FromLong(kDouble));
    Ref indices = index_list(vars, size);
    Ref values =
        call_attrutil("_gettypedattrlist", {vars[0], name.get(), type.get(), indices.get()});
    std::size_t wanted = out.size() + size;
    if (!append_doubles(values.get(), out)) append_items(values.get(), out);
    if (out.size() != wanted)
        raise(PyExc_RuntimeError, "the values of %zd variables came in another number", size);
}

}  // namespace

const char* kind_name(int kind) {
    switch (kind) {
        case kVar:
            return "Var";
        case kConstr:
            return "Constr";
        case kQConstr:
            return "QConstr";
        default:
            return "GenConstr";
    }
}

Ref read_attribute(HandleObject* handle, PyObject* name) {
    AttributeInfo info = find_attribute(handle, name, false);
    Ref index = checked(PyLong_FromLong(handle_number(handle)));
    Ref indices = checked(PyList_New(1));
    PyList_SET_ITEM(indices.get(), 0, index.release());
    Ref values = call_attrutil("_gettypedattrlist",
                               {as_object(handle), name, info.datatype.get(), indices.get()});
    if (is_ndarray(values.get()) && dimensions(values.get()) == 2)  // several values an element
        return checked(PyObject_CallMethod(values.get(), "ravel", nullptr));
    Ref value = checked(PySequence_GetItem(values.get(), 0));
    return plain_value(info.type, value.get());
}

void write_attribute(HandleObject* handle, PyObject* name, PyObject* value) {
    if (!value) raise(PyExc_AttributeError, "Attribute '%S' cannot be deleted", name);
    AttributeInfo info = find_attribute(handle, name, true);
    Ref indices = checked(Py_BuildValue("[i]", handle_number(handle)));
    Ref values = checked(Py_BuildValue("[O]", value));
    call_attrutil("_settypedattrlist",
                  {as_object(handle), name, info.datatype.get(), indices.get(), values.get()});
}

Ref attribute_names(HandleObject* handle) {
    Ref kind = checked(PyLong_FromLong(handle->kind));
    Ref names = call_attrutil("_attrlist", {Py_None, kind.get()});
    return checked(PySequence_List(names.get()));
}

std::vector<double> solution_values(PyObject* const* vars, Py_ssize_t size) {
    // The list the pointers lead into may be changed by the Python code that is called below.
    std::vector<Ref> keep;
    std::vector<PyObject*> own;
    keep.reserve(size);
    own.reserve(size);
    for (Py_ssize_t k = 0; k < size; ++k) {
        keep.push_back(borrow(as_object(variable(vars[k]))));
        own.push_back(keep.back().get());
    }
    std::vector<double> values;
    values.reserve(size);
    for (Py_ssize_t begin = 0, end = 0; begin < size; begin = end) {
        while (end < size && as_handle(own[end])->model == as_handle(own[begin])->model) ++end;
        append_values(own.data() + begin, end - begin, values);
    }
    return values;
}

Ref element_name(HandleObject* handle) {
    Ref name(PyObject_CallMethod(handle->model, "element_name", "ii", handle->kind, handle->id));
    if (name && PyUnicode_Check(name.get())) return name;
    // A text is shown for a closed model too, where no name can be had.
    if (!name && !PyErr_ExceptionMatches(PyExc_Exception)) throw PythonError();
    PyErr_Clear();
    return checked(PyUnicode_FromFormat("number %d", handle->id));
}

}  // namespace taviropy
