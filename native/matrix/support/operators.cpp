#include "support/operators.hpp"

#include "core_interface/scalars.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"
#include "support/numbers.hpp"
#include "support/sparse.hpp"

namespace taviropy {

using namespace nb::literals;

bool is_scalar_expression(nb::handle object) {
    return is_a(object, names::Var) || is_linexpr(object) || is_quadexpr(object) ||
           is_a(object, names::NLExpr);
}

bool is_array_of_two(nb::handle array) {
    return size_of(array) == 1 && is_two(nb::object(array.attr("item")()));
}

Py_ssize_t size_of(nb::handle array) {
    return nb::cast<Py_ssize_t>(nb::object(array.attr("size")));
}

nb::object reciprocal(nb::handle np, nb::handle sp, nb::handle divisor) {
    nb::float_ one(1.0);
    if (is_ndarray(np, divisor)) return one / divisor;
    if (is_sparse(sp, divisor)) return one / sparse::to_array(divisor);
    if (is_scalar(divisor)) return one / real_float(divisor);
    return nb::object();
}

nb::object subtract_in_place(nb::handle self, nb::handle other) {
    nb::object result = nb::borrow(self);
    result += negated(other);
    return result;
}

nb::object divide_in_place(nb::handle self, nb::handle other) {
    nb::object factor = reciprocal(import_numpy(), import_sparse(), other);
    if (!factor.is_valid()) return not_implemented();
    nb::object result = nb::borrow(self);
    result *= factor;
    return result;
}

nb::object product_shape(nb::handle left_shape, nb::handle right_shape) {
    return names::_matmul_shape()(left_shape, right_shape, "do_raise"_a = true);
}

bool has_zero(nb::handle shape) {
    for (nb::handle extent : shape)
        if (!truth(extent)) return true;
    return false;
}

bool is_empty_product(nb::handle left_shape, nb::handle right_shape, nb::handle result_shape) {
    return !truth(nb::object(left_shape[-1])) || !truth(nb::object(right_shape[0])) ||
           has_zero(result_shape);
}

nb::object dense(nb::handle sp, nb::handle matrix) {
    return is_sparse(sp, matrix) ? sparse::to_array(matrix) : nb::borrow(matrix);
}

}  // namespace taviropy
