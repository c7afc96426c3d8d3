#include "support/attributes.hpp"

#include <cmath>
#include <string>

#include "support/errors.hpp"
#include "support/handles.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"
#include "support/numbers.hpp"
#include "support/object_arrays.hpp"
#include "support/sparse.hpp"

namespace taviropy::attributes {

using namespace nb::literals;

namespace {

bool equal(nb::handle left, nb::handle right) {
    int result = PyObject_RichCompareBool(left.ptr(), right.ptr(), Py_EQ);
    check(result);
    return result == 1;
}

bool equal(nb::handle number, long value) {
    if (PyLong_CheckExact(number.ptr())) {
        int overflow = 0;
        return PyLong_AsLongAndOverflow(number.ptr(), &overflow) == value && !overflow;
    }
    return equal(number, nb::int_(value));
}

/// What `_getattrinfo` knows of an attribute.
struct Info {
    nb::object type, kind, settable;
};

/// _getattrinfo(self, attrname); invalid with Python's error set for a name that isn't an
/// attribute.
nb::object look_up(nb::handle self, nb::handle attrname) {
    PyObject* args[] = {self.ptr(), attrname.ptr()};
    return nb::steal(PyObject_Vectorcall(names::_getattrinfo().ptr(), args, 2, nullptr));
}

/// type, kind, settable = info
Info unpacked(nb::handle info) {
    nb::object iterator = checked(PyObject_GetIter(info.ptr()));
    nb::object values[4];
    int count = 0;
    while (count < 4) {
        PyObject* value = PyIter_Next(iterator.ptr());
        if (!value && PyErr_Occurred()) throw nb::python_error();
        if (!value) break;
        values[count++] = nb::steal(value);
    }
    if (count > 3) raise(PyExc_ValueError, "too many values to unpack (expected 3)");
    if (count < 3)
        raise(PyExc_ValueError,
              "not enough values to unpack (expected 3, got " + std::to_string(count) + ")");
    return {values[0], values[1], values[2]};
}

/// Refuses with `before + attrname + after`, whatever characters the name has.
[[noreturn]] void refuse(const char* before, nb::handle attrname, const char* after,
                         Site site = Site::current()) {
    nb::object text = checked(PyUnicode_Concat(nb::str(before).ptr(), attrname.ptr()));
    text = checked(PyUnicode_Concat(text.ptr(), nb::str(after).ptr()));
    raise(PyExc_AttributeError, text, site);
}

/// As `refuse`, with a line below the error that `hint` of taviropy.suggestions gives for the kind
/// of object and the name.
[[noreturn]] void refuse_with_hint(const char* hint, const HandleClass& type, const char* before,
                                   nb::handle attrname, const char* after,
                                   Site site = Site::current()) {
    try {
        refuse(before, attrname, after, site);
    } catch (nb::python_error& error) {
        nb::object suggestions = nb::module_::import_("taviropy.suggestions");
        nb::object note = suggestions.attr(hint)(type.kind, attrname);
        error.value().attr("add_note")(note);
        throw;
    }
}

/// Whether the values of an attribute are texts, of one character or of any number.
bool holds_texts(nb::handle type) { return equal(type, 0) || equal(type, 3); }

/// Whether an attribute has a lower and an upper value an element.
bool is_range(nb::handle attrname) {
    if (!PyUnicode_CheckExact(attrname.ptr())) return false;
    nb::object ranges = nb::module_::import_("taviropy.data.attributes").attr("RANGES");
    return nb::cast<bool>(ranges.attr("__contains__")(attrname));
}

/// The element type of the array that `getAttr` gives; invalid for an unknown type code.
nb::object result_dtype(nb::handle np, nb::handle type) {
    if (equal(type, 0)) return nb::str("U1");
    if (equal(type, 1)) return np.attr("int32");
    if (equal(type, 2)) return np.attr("float64");
    if (equal(type, 3)) return nb::str("object");
    return nb::object();
}

/// list(array.flat), of Python integers, for an array of 32-bit integers.
nb::object list_of_indices(nb::handle indices) {
    ArrayBuffer buffer;
    if (!buffer.acquire(indices, PyBUF_C_CONTIGUOUS | PyBUF_FORMAT) || !buffer.holds('i'))
        return checked(PySequence_List(nb::object(indices.attr("flat")).ptr()));
    const auto* number = static_cast<const int*>(buffer->buf);
    Py_ssize_t size = buffer->len / buffer->itemsize;
    nb::object list = checked(PyList_New(size));
    for (Py_ssize_t k = 0; k < size; ++k)
        PyList_SET_ITEM(list.ptr(), k, checked(PyLong_FromLong(number[k])).release().ptr());
    return list;
}

/// Whether a function is one of the package's own, which take arrays as well as lists.
bool takes_arrays(nb::handle function) {
    return PyFunction_Check(function.ptr()) && nb::hasattr(function, "takes_arrays");
}

/// The indices of all elements, in C order: a list, or an array for who takes it.
nb::object indices_of(const HandleClass& type, nb::handle self, bool as_array) {
    nb::object indices = self.attr("_idxarr")();
    if (type.checks_indices) {
        handles::Places places = handles::look_at_places(indices);
        const char* problem = places.waiting   ? " has not yet been added to the model"
                              : places.removed ? " was removed from the model"
                                               : nullptr;
        if (problem)
            raise_taviro_error(names::TVO().attr("Error").attr("NOT_IN_MODEL"),
                               std::string("GenConstr") + problem);
    }
    return as_array ? indices.attr("reshape")(-1) : list_of_indices(indices);
}

/// [value] * np.prod(self.shape, dtype='i')
nb::object repeated(nb::handle np, nb::handle self, nb::object value) {
    nb::list list;
    list.append(value);
    nb::object shape = self.attr("shape");
    Py_ssize_t count = 1;
    bool plain = PyTuple_CheckExact(shape.ptr());
    for (Py_ssize_t k = 0; plain && k < PyTuple_GET_SIZE(shape.ptr()); ++k) {
        PyObject* length = PyTuple_GET_ITEM(shape.ptr(), k);
        int overflow = 1;
        long factor = PyLong_CheckExact(length) ? PyLong_AsLongAndOverflow(length, &overflow) : -1;
        plain = !overflow && factor >= 0 && !__builtin_mul_overflow(count, factor, &count) &&
                count <= 0x7fffffff;
    }
    if (plain) return checked(PySequence_Repeat(list.ptr(), count));
    return list * np.attr("prod")(shape, "dtype"_a = "i");
}

[[noreturn]] void refuse_shape(nb::handle self, nb::handle given, Site site = Site::current()) {
    try {
        raise(PyExc_AttributeError, "Shape mismatch", site);
    } catch (nb::python_error& error) {
        nb::object hint = nb::module_::import_("taviropy.suggestions").attr("for_shape");
        nb::object shape = self.attr("shape"), note = hint(shape, given);
        error.value().attr("add_note")(note);
        throw;
    }
}

/// Whether an attribute of numbers can take the entries of an array as they are.
bool holds_numbers(nb::handle np, nb::handle value, nb::handle datatype) {
    if (holds_texts(datatype) ||
        !nb::borrow((PyObject*)Py_TYPE(value.ptr())).is(np.attr("ndarray")))
        return false;
    nb::object kind = value.attr("dtype").attr("kind");
    const Py_UCS4 letter = PyUnicode_READ_CHAR(kind.ptr(), 0);
    return letter == 'f' || letter == 'i' || letter == 'u' || letter == 'b';
}

/// An array, with NaN for the entries of numbers that are masked.
nb::object unmasked(nb::handle np, nb::handle value, nb::handle datatype) {
    if (nb::borrow((PyObject*)Py_TYPE(value.ptr())).is(np.attr("ndarray")) ||
        holds_texts(datatype) ||
        !truth(np.attr("any")(nb::getattr(value, "mask", nb::bool_(false)))))
        return nb::borrow(value);
    return value.attr("astype")("float64").attr("filled")(std::nan(""));
}

nb::object flat_array(nb::handle np, nb::handle self, nb::handle value, nb::handle datatype,
                      bool as_array) {
    if (equal(value.attr("size"), 1)) {
        nb::object item = value.attr("item")();
        const bool text = PyUnicode_Check(item.ptr()) && holds_texts(datatype);
        return repeated(np, self, text ? item : as_float(item));
    }
    if (!equal(value.attr("shape"), self.attr("shape")))
        refuse_shape(self, nb::object(value.attr("shape")));
    if (as_array && holds_numbers(np, value, datatype)) return value.attr("reshape")(-1);
    return checked(PySequence_List(nb::object(value.attr("flat")).ptr()));
}

nb::object flat_iterable(const HandleClass& type, nb::handle np, nb::handle self,
                         nb::handle value) {
    const bool plain = PyList_Check(value.ptr()) || PyTuple_Check(value.ptr());
    nb::object items = plain ? nb::borrow(value) : sparse::sound(value);
    nb::object list = checked(PySequence_List(items.ptr()));
    Py_ssize_t size = PyList_GET_SIZE(list.ptr());
    // A single item is repeated by multiplying what was given: a tuple stays a tuple, and what
    // can't be multiplied is a TypeError.
    if (size == 1)
        return value * (type.repeats_by_shape ? np.attr("prod")(nb::getattr(self, "shape"))
                                              : nb::object(self.attr("size")));
    nb::object shape = self.attr("shape");
    if (nb::len(shape) != 1 || !equal(nb::object(shape[0]), static_cast<long>(size)))
        refuse_shape(self, nb::make_tuple(size));
    return list;
}

/// The value of each element, from a value as users give it to `setAttr`; `datatype` is the
/// attribute's. A list, or an array for who takes it.
nb::object flat_values(const HandleClass& type, nb::handle np, nb::handle self, nb::handle value,
                       nb::handle datatype, bool as_array) {
    if (truth(names::_isstr()(value))) {
        if (type.repeats_by_shape) return repeated(np, self, nb::borrow(value));
        nb::list list;
        list.append(value);
        return list * self.attr("size");
    }
    if (is_ndarray(np, value))
        return flat_array(np, self, unmasked(np, value, datatype), datatype, as_array);
    if (is_scalar(value)) return repeated(np, self, as_float(value));
    if (is_a(value, names::Iterable)) return flat_iterable(type, np, self, value);
    raise(PyExc_AttributeError, "Use scalar or ndarray to set attribute");
}

bool is_private(nb::handle name) {
    nb::object first = checked(PySequence_GetItem(name.ptr(), 0));
    return PyUnicode_Check(first.ptr()) && PyUnicode_CompareWithASCIIString(first.ptr(), "_") == 0;
}

/// True where normal look-up finds the field `_cmodel`.
bool has_model_field(nb::handle self) {
    static PyObject* const key = PyUnicode_InternFromString("_cmodel");
    PyObject* model = PyObject_GenericGetAttr(self.ptr(), key);
    if (!model && !PyErr_ExceptionMatches(PyExc_AttributeError)) throw nb::python_error();
    if (!model) PyErr_Clear();
    Py_XDECREF(model);
    return model != nullptr;
}

}  // namespace

nb::object getattr(const HandleClass& type, nb::handle self, nb::handle name) {
    if (PyUnicode_Check(name.ptr()) && PyUnicode_GET_LENGTH(name.ptr()) > 0 &&
        PyUnicode_READ_CHAR(name.ptr(), 0) == '_' && !has_model_field(self)) {
        PyErr_Format(PyExc_AttributeError, "'%s' object has no attribute '%U'", type.name,
                     name.ptr());
        return nb::object();
    }
    // NumPy and SciPy ask for names that aren't attributes again and again, so failure has to be
    // cheap.
    static PyObject* const method = PyUnicode_InternFromString("getAttr");
    return nb::steal(PyObject_CallMethodOneArg(self.ptr(), method, name.ptr()));
}

nb::object setattr(nb::handle self, nb::handle name, nb::handle value) {
    if (is_private(name))
        store(self, name, value);
    else
        self.attr("setAttr")(name, value);
    return nb::none();
}

void store(nb::handle self, nb::handle name, nb::handle value) {
    // Where no data descriptor of that name is in the way, generic assignment stores there too,
    // without making the dictionary object.
    PyObject* found = _PyType_Lookup(Py_TYPE(self.ptr()), name.ptr());
    if (!found || !Py_TYPE(found)->tp_descr_set) {
        check(PyObject_GenericSetAttr(self.ptr(), name.ptr(), value.ptr()));
    } else {
        nb::object fields = checked(PyObject_GenericGetDict(self.ptr(), nullptr));
        check(PyDict_SetItem(fields.ptr(), name.ptr(), value.ptr()));
    }
}

nb::object getAttr(const HandleClass& type, nb::handle self, nb::handle attrname) {
    nb::object np = import_numpy();
    if (self.attr("_cmodel").is_none()) {
        nb::object shape = nb::getattr(self, "shape");
        if (is_range(attrname)) shape = nb::make_tuple(2) + nb::tuple(shape);
        return np.attr("array")(nb::list()).attr("reshape")(shape);
    }
    nb::object found = look_up(self, attrname);
    if (!found.is_valid()) return found;
    Info info = unpacked(found);
    if (!equal(info.kind, type.kind))
        refuse_with_hint("for_foreign", type, type.refused_get, attrname, "'");
    nb::object read = names::_gettypedattrlist();
    nb::object indices = indices_of(type, self, takes_arrays(read));
    nb::object values = read(self, attrname, info.type, indices);
    nb::object dtype = result_dtype(np, info.type);
    if (!dtype.is_valid())
        raise(PyExc_UnboundLocalError,
              "cannot access local variable 'dtype' where it is not "
              "associated with a value");
    nb::object array = np.attr("array")(values, "dtype"_a = dtype);
    nb::object shape = nb::getattr(self, "shape");
    // An attribute with several values an element has an axis for them in front.
    if (nb::cast<int>(array.attr("ndim")) == 2)
        shape = nb::make_tuple(nb::len(array)) + nb::tuple(shape);
    return array.attr("reshape")(shape);
}

nb::object setAttr(const HandleClass& type, nb::handle self, nb::handle attrname,
                   nb::handle value) {
    nb::object np = import_numpy();
    if (self.attr("_cmodel").is_none()) return nb::none();
    nb::object found = look_up(self, attrname);
    if (!found.is_valid()) return found;
    Info info = unpacked(found);
    if (!equal(info.kind, type.kind))
        refuse_with_hint("for_foreign", type, type.refused_set, attrname, "'");
    if (equal(info.settable, 0))
        refuse_with_hint("for_read_only", type, "Attribute '", attrname, "' cannot be set");
    nb::object write = names::_settypedattrlist();
    const bool as_array = takes_arrays(write);
    nb::object values = flat_values(type, np, self, value, info.type, as_array);
    write(self, attrname, info.type, indices_of(type, self, as_array), values);
    return nb::none();
}

nb::object prefetchAttr(nb::handle self, nb::handle attrname) {
    if (!self.attr("_cmodel").is_none()) names::_prefetchattr()(self, attrname);
    return nb::none();
}

}  // namespace taviropy::attributes
