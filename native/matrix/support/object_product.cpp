#include "support/object_product.hpp"

#include "core_interface/scalars.hpp"
#include "support/errors.hpp"
#include "support/object_arrays.hpp"
#include "support/operators.hpp"

namespace taviropy {

namespace {

/// The slots of an object array of one or two dimensions, as those of a matrix.
struct Slots {
    ArrayBuffer buffer;
    Py_ssize_t rows = 0, columns = 0, row_step = 0, column_step = 0;

    /// False where the array has another dtype or number of dimensions. A vector is a row, or a
    /// column.
    bool acquire(nb::handle array, bool vector_is_row) {
        if (!buffer.acquire(array, PyBUF_STRIDES | PyBUF_FORMAT) || !buffer.holds('O'))
            return false;
        if (buffer->ndim < 1 || buffer->ndim > 2) return false;
        const Py_ssize_t *shape = buffer->shape, *strides = buffer->strides;
        rows = columns = 1;
        if (buffer->ndim == 2 || !vector_is_row) {
            rows = shape[0];
            row_step = strides[0];
        }
        if (buffer->ndim == 2 || vector_is_row) {
            columns = shape[buffer->ndim - 1];
            column_step = strides[buffer->ndim - 1];
        }
        return true;
    }

    nb::object at(Py_ssize_t row, Py_ssize_t column) const {
        return Chunk{static_cast<char*>(buffer->buf) + row * row_step, column_step}.element(column);
    }
};

/// An expression that nobody else refers to.
bool is_own_expression(const nb::object& object) {
    PyTypeObject* type = Py_TYPE(object.ptr());
    return (type == linexpr_type() || type == quadexpr_type()) && Py_REFCNT(object.ptr()) == 1;
}

nb::object element(const Slots& left, const Slots& right, Py_ssize_t row, Py_ssize_t column) {
    nb::object sum = left.at(row, 0) * right.at(0, column);
    for (Py_ssize_t k = 1; k < left.columns; ++k) {
        nb::object product = left.at(row, k) * right.at(k, column);
        if (is_own_expression(sum))
            sum += product;
        else
            sum = sum + product;
    }
    return sum;
}

nb::object as_objects(nb::handle np, nb::handle array) {
    nb::object object_type = np.attr("object_");
    if (array.attr("dtype").equal(object_type)) return nb::borrow(array);
    return array.attr("astype")(object_type);
}

}  // namespace

nb::object object_product(nb::handle np, nb::handle left, nb::handle right) {
    GcPause pause;
    nb::object ndarray = np.attr("ndarray");
    if (!left.type().is(ndarray) || !right.type().is(ndarray)) return matrix_product(left, right);
    nb::object lefts = as_objects(np, left), rights = as_objects(np, right);
    Slots a, b;
    if (!a.acquire(lefts, /*vector_is_row=*/true) || !b.acquire(rights, /*vector_is_row=*/false) ||
        a.columns != b.rows || a.columns == 0)
        return matrix_product(left, right);
    if (a.buffer->ndim == 1 && b.buffer->ndim == 1) return element(a, b, 0, 0);
    nb::list shape;
    if (a.buffer->ndim == 2) shape.append(a.rows);
    if (b.buffer->ndim == 2) shape.append(b.columns);
    nb::object result = empty_object_array(np, nb::tuple(shape));
    ArrayBuffer out;
    if (!out.acquire(result, PyBUF_C_CONTIGUOUS | PyBUF_FORMAT | PyBUF_WRITABLE))
        return matrix_product(left, right);
    Chunk slots{static_cast<char*>(out->buf), out->itemsize};
    for (Py_ssize_t row = 0, k = 0; row < a.rows; ++row)
        for (Py_ssize_t column = 0; column < b.columns; ++column, ++k)
            slots.store(k, element(a, b, row, column));
    return result;
}

}  // namespace taviropy
