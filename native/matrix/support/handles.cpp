#include "support/handles.hpp"

#include <string>

#include "core_interface/scalars.hpp"
#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/object_arrays.hpp"

namespace taviropy::handles {

using namespace nb::literals;

namespace {

nb::object element_at(char* place) { return Chunk{place, 0}.element(0); }

bool acquire_elements(ArrayBuffer& buffer, nb::handle array) {
    return buffer.acquire(array, PyBUF_STRIDES | PyBUF_FORMAT) && buffer.holds('O');
}

/// False where an index isn't a plain integer of 32 bits, or an array isn't what it should be.
bool gather_indices(nb::handle array, nb::handle indices, const char* field) {
    ArrayBuffer from, to;
    if (!acquire_elements(from, array)) return false;
    if (!to.acquire(indices, PyBUF_STRIDES | PyBUF_FORMAT | PyBUF_WRITABLE) || !to.holds('i'))
        return false;
    if (to.size() != from.size()) return false;
    nb::object key = checked(PyUnicode_InternFromString(field));
    base::Walker source(from), target(to);
    for (Py_ssize_t left = to.size(); left > 0; --left) {
        nb::object element = element_at(source.next());  // kept while its attribute is read
        nb::object index = checked(PyObject_GetAttr(element.ptr(), key.ptr()));
        int overflow = 1;
        long number =
            PyLong_CheckExact(index.ptr()) ? PyLong_AsLongAndOverflow(index.ptr(), &overflow) : 0;
        if (overflow || number != static_cast<int>(number)) return false;
        *reinterpret_cast<int*>(target.next()) = static_cast<int>(number);
    }
    return true;
}

}  // namespace

nb::object model_of(const ArrayBuffer& elements) {
    if (elements->len == 0) return nb::none();
    return element_at(static_cast<char*>(elements->buf)).attr("_cmodel");
}

nb::object model_of(nb::handle array) {
    {
        ArrayBuffer buffer;
        if (acquire_elements(buffer, array)) return model_of(buffer);
    }
    nb::object size = array.attr("size");
    if (!(size > nb::int_(0))) return nb::none();
    nb::object first = array.attr("flat")[nb::int_(0)];
    return first.attr("_cmodel");
}

void store_fields(nb::handle self, const char* first, nb::handle first_value, const char* second,
                  nb::handle second_value) {
    nb::setattr(self, first, first_value);
    nb::setattr(self, second, second_value);
}

nb::object subarray(const HandleClass& type, nb::handle self, nb::handle key) {
    nb::object np = import_numpy();
    nb::object array = self.attr(type.array)[key];
    return is_a(array, *type.element) ? array_of_one(np, array) : array;
}

nb::object find_stranger(const HandleClass& type, nb::handle array) {
    ArrayBuffer buffer;
    if (!acquire_elements(buffer, array)) {
        for (nb::handle element : nb::object(array.attr("flat")))
            if (!is_a(element, *type.element)) return nb::borrow(element);
        return nb::object();
    }
    nb::object cls = (*type.element)();
    base::Walker elements(buffer);
    for (Py_ssize_t left = buffer.size(); left > 0; --left) {
        nb::object element = element_at(elements.next());
        if (!is_instance(element, cls)) return element;
    }
    return nb::object();
}

void refuse_stranger(const HandleClass& type, nb::handle element) {
    // The placeholder of the text for general constraints isn't filled in.
    if (!type.fromlist_error)
        raise(PyExc_ValueError,
              "MGenConstr.fromlist expects a list of GenConstrs, '{obj}' is not valid input");
    raise(PyExc_ValueError, type.fromlist_error + text_of(element) + "' is not valid input");
}

nb::object index_array(const HandleClass& type, nb::handle self) {
    nb::object np = import_numpy();
    nb::object elements = self.attr(type.array);
    nb::object indices = np.attr("empty_like")(elements, "dtype"_a = nb::getattr(np, "int32"));
    if (gather_indices(elements, indices, type.index)) return indices;
    nb::list values;
    for (nb::handle element : nb::object(elements.attr("flat")))
        values.append(nb::getattr(element, type.index));
    indices.attr("flat")[nb::slice(nb::none(), nb::none(), nb::none())] = values;
    return indices;
}

nb::object directory(nb::handle self) {
    nb::object attributes =
        names::_attrlist()(nb::getattr(self, "_cmodel"), nb::getattr(self, "_typeenum"));
    nb::object all = checked(PyObject_Dir(reinterpret_cast<PyObject*>(Py_TYPE(self.ptr()))));
    nb::object unique = checked(PySet_New(all.ptr()));
    unique.attr("update")(nb::getattr(self, "__dict__"), attributes);
    nb::object sorted = checked(PySequence_List(unique.ptr()));
    check(PyList_Sort(sorted.ptr()));
    return sorted;
}

nb::object init_constraints(const HandleClass& type, nb::handle self, nb::handle array) {
    nb::object np = import_numpy();
    PY_ASSERT(is_ndarray(np, array));
    store_fields(self, "_cmodel", model_of(array), type.array, array);
    return nb::none();
}

nb::object constraints_repr(const HandleClass& type, nb::handle self) {
    import_numpy();
    Places places;
    if (!self.attr("_cmodel").is_none()) {
        long count = 0x7fffffff;
        if (type.count_method) count = nb::cast<long>(self.attr(type.count_method)());
        places = look_at_places(self.attr("_idxarr")(), count);
    }
    std::string text = std::string("<") + type.name + " " + text_of(self.attr("shape"));
    if (places.waiting || places.beyond) text += " *awaiting model update*";
    if (places.removed) text += " (some removed)";
    return nb::str((text + ">").c_str());
}

nb::object constraints_from_list(const HandleClass& type, nb::handle cls, nb::handle list) {
    nb::object np = import_numpy();
    nb::object array = np.attr("array")(list, "dtype"_a = "O");
    nb::object stranger = find_stranger(type, array);
    if (stranger.is_valid()) refuse_stranger(type, stranger);
    return cls(array);
}

nb::object count_in_model(const HandleClass& type, nb::handle self) {
    nb::object model = self.attr("_cmodel");
    if (model.is_none()) return nb::none();
    int count = 0;
    TVOgetintattr(model_handle(model), type.count, &count);
    return nb::int_(count);
}

Places look_at_places(nb::handle indices, long count) {
    Places places;
    ArrayBuffer buffer;
    if (!buffer.acquire(indices, PyBUF_STRIDES | PyBUF_FORMAT) || !buffer.holds('i')) {
        nb::object np = import_numpy();
        nb::object converted = np.attr("array")(indices, "dtype"_a = "i");
        if (!buffer.acquire(converted, PyBUF_STRIDES | PyBUF_FORMAT))
            raise(PyExc_ValueError, "_idxarr() gave no array of indices");
    }
    base::Walker items(buffer);
    for (Py_ssize_t left = buffer.size(); left > 0; --left) {
        int index = *reinterpret_cast<int*>(items.next());
        places.waiting |= index == -1;
        places.removed |= index <= -2;
        places.beyond |= index > count;
    }
    return places;
}

}  // namespace taviropy::handles
