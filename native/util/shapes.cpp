// Shape rules: broadcasting, matrix products, axes; and the tests of single values.
#include <algorithm>

#include "base/numbers.hpp"
#include "util.hpp"

namespace taviropy {

namespace {

constexpr Py_ssize_t most_dimensions = 64;  // of NumPy's arrays

Ref isscalar(PyObject*, PyObject* value) { return checked(PyBool_FromLong(is_number(value))); }

Ref isstr(PyObject*, PyObject* value) { return checked(PyBool_FromLong(PyUnicode_Check(value))); }

Py_ssize_t whole_number(PyObject* object) {
    Py_ssize_t value = checked(PyNumber_AsSsize_t(object, PyExc_OverflowError));
    return value;
}

/// Widens `result` to hold `shape` as well; false where the two don't broadcast.
bool broadcast_into(Shape& result, const Shape& shape) {
    if (shape.size() > result.size())
        result.insert(result.begin(), shape.size() - result.size(), 1);
    Py_ssize_t* extent = result.data() + (result.size() - shape.size());
    for (Py_ssize_t given : shape) {
        if (*extent == 1)
            *extent = given;
        else if (given != 1 && given != *extent)
            return false;
        ++extent;
    }
    return true;
}

Ref broadcast_shapes(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    Shape result;
    for (Py_ssize_t k = 0; k < nargs; ++k) {
        Shape before = result, shape = shape_from(args[k]);
        if (broadcast_into(result, shape)) continue;
        Ref left = shape_tuple(before), right = shape_tuple(shape);
        raise(PyExc_ValueError,
              "shapes %R and %R do not broadcast: counted from the right, the extents of each axis "
              "must be equal, or one of them 1",
              left.get(), right.get());
    }
    return shape_tuple(result);
}

Ref matmul_shape(PyObject*, PyObject* args, PyObject* kwargs) {
    static const char* keywords[] = {"shape_left", "shape_right", "do_raise", nullptr};
    PyObject *left_object, *right_object;
    int do_raise = 1;
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OO|p:_matmul_shape",
                                     const_cast<char**>(keywords), &left_object, &right_object,
                                     &do_raise))
        throw PythonError();
    Shape left = shape_from(left_object), right = shape_from(right_object), result;
    if (product_shape(left, right, result)) return shape_tuple(result);
    if (do_raise) refuse_product(left, right);
    return none();
}

void mark_axis(PyObject* axis, Py_ssize_t ndim, std::vector<bool>& reduced) {
    Py_ssize_t place = whole_number(axis);
    if (place < -ndim || place >= ndim)
        raise(PyExc_IndexError, "axis %zd is out of bounds: there are %zd dimensions", place, ndim);
    if (place < 0) place += ndim;
    if (reduced[place]) raise(PyExc_IndexError, "axis %zd is given twice", place);
    reduced[place] = true;
}

Ref axis_to_axeslist(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("_axis_to_axeslist", nargs, 2, 2);
    PyObject* axis = args[0];
    Py_ssize_t ndim = whole_number(args[1]);
    if (ndim < 0 || ndim > most_dimensions)
        raise(PyExc_ValueError, "the number of dimensions is %zd; arrays have at most %zd", ndim,
              most_dimensions);
    std::vector<bool> reduced(ndim, axis == Py_None);
    if (PyTuple_Check(axis) || PyList_Check(axis)) {
        Ref axes = checked(PySequence_Tuple(axis));
        for (Py_ssize_t k = 0; k < PyTuple_GET_SIZE(axes.get()); ++k)
            mark_axis(PyTuple_GET_ITEM(axes.get(), k), ndim, reduced);
    } else if (axis != Py_None) {
        mark_axis(axis, ndim, reduced);
    }
    Ref list = checked(PyList_New(ndim));
    long next = 0;
    for (Py_ssize_t k = 0; k < ndim; ++k)
        PyList_SET_ITEM(list.get(), k,
                        checked(PyLong_FromLong(reduced[k] ? -1 : next++)).release());
    return list;
}

bool same_shape(const Buffer& a, const Buffer& b) {
    return a->ndim == b->ndim && std::equal(a->shape, a->shape + a->ndim, b->shape);
}

bool refs_match(PyObject* arr1, PyObject* arr2) {
    if (arr1 == Py_None || arr2 == Py_None) return false;
    Buffer a(arr1, PyBUF_RECORDS_RO), b(arr2, PyBUF_RECORDS_RO);
    if (!a.holds('O') || !b.holds('O'))
        raise(PyExc_TypeError,
              "expected arrays of dtype object, got the buffer formats '%s' and '%s'", a->format,
              b->format);
    if (!same_shape(a, b) || a.size() == 0) return false;
    Walker first(a), second(b);
    for (Py_ssize_t k = a.size(); k > 0; --k)
        if (*reinterpret_cast<PyObject**>(first.next()) !=
            *reinterpret_cast<PyObject**>(second.next()))
            return false;
    return true;
}

Ref all_refs_match(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("_all_refs_match", nargs, 2, 2);
    return checked(PyBool_FromLong(refs_match(args[0], args[1])));
}

}  // namespace

Shape shape_from(PyObject* object) {
    Shape shape;
    if (PyIndex_Check(object) && !PySequence_Check(object)) {
        shape.push_back(whole_number(object));
    } else {
        if (PyUnicode_Check(object) || !PySequence_Check(object))
            raise(PyExc_TypeError, "a shape is an int or a tuple of ints, not '%s'",
                  Py_TYPE(object)->tp_name);
        Ref extents = checked(PySequence_Tuple(object));
        for (Py_ssize_t k = 0; k < PyTuple_GET_SIZE(extents.get()); ++k)
            shape.push_back(whole_number(PyTuple_GET_ITEM(extents.get(), k)));
    }
    for (Py_ssize_t extent : shape)
        if (extent < 0)
            raise(PyExc_ValueError, "the shape %R has a negative extent; extents are 0 or more",
                  object);
    return shape;
}

Ref shape_tuple(const Shape& shape) {
    Ref tuple = checked(PyTuple_New(static_cast<Py_ssize_t>(shape.size())));
    for (std::size_t k = 0; k < shape.size(); ++k)
        PyTuple_SET_ITEM(tuple.get(), k, checked(PyLong_FromSsize_t(shape[k])).release());
    return tuple;
}

bool product_shape(const Shape& left, const Shape& right, Shape& result) {
    bool known = (left.size() == 1 || left.size() == 2) && (right.size() == 1 || right.size() == 2);
    if (!known || left.back() != right.front()) return false;
    result.assign(left.begin(), left.end() - 1);
    result.insert(result.end(), right.begin() + 1, right.end());
    return true;
}

void refuse_product(const Shape& left_shape, const Shape& right_shape) {
    Ref left = shape_tuple(left_shape), right = shape_tuple(right_shape);
    raise(PyExc_ValueError,
          "matmul: shapes %R and %R do not fit: operands of one or two dimensions are multiplied, "
          "the "
          "last extent of the left one being the first of the right one",
          left.get(), right.get());
}

PyMethodDef shape_methods[] = {
    {"_isscalar", method<isscalar>(), METH_O,
     R"(_isscalar(value, /)
--

Whether the value is a number, as numbers.Number knows it, or NumPy's bool; an array without
dimensions is none.)"},
    {"_isstr", method<isstr>(), METH_O, R"(_isstr(value, /)
--

Whether the value is a string.)"},
    {"_broadcast_shapes", method<broadcast_shapes>(), METH_FASTCALL,
     R"(_broadcast_shapes(*shapes)
--

The shape (tuple of int) to which the shapes broadcast; an int counts as a shape.

ValueError, with both shapes, where two don't broadcast.)"},
    {"_matmul_shape", method<matmul_shape>(), METH_VARARGS | METH_KEYWORDS,
     R"(_matmul_shape(shape_left, shape_right, do_raise=True)
--

The shape (tuple of int) of a matrix product of operands of one or two dimensions.

For a pair that does not fit a ValueError, or None without do_raise.)"},
    {"_axis_to_axeslist", method<axis_to_axeslist>(), METH_FASTCALL,
     R"(_axis_to_axeslist(axis, ndim, /)
--

A list of ndim ints: -1 for an axis that is reduced, its place in the result for any other.

axis is an int, a tuple or list of them, or None for all; negative ones count from the end.
IndexError for an axis out of bounds or given twice.)"},
    {"_all_refs_match", method<all_refs_match>(), METH_FASTCALL,
     R"(_all_refs_match(arr1, arr2, /)
--

Whether two object arrays of one shape hold the very same objects, slot by slot. False for
empty arrays and for None.)"},
    {nullptr},
};

}  // namespace taviropy
