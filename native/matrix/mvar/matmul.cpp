// MVar: matrix products. With numbers the result is linear, with variables it is quadratic.

#include "core_interface/scalars.hpp"
#include "mvar/mvar.hpp"
#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/operators.hpp"

namespace taviropy::mvar {

namespace {

[[noreturn]] void refuse_scalar(Site site = Site::current()) {
    raise(PyExc_ValueError, "Input operand does not have enough dimensions", site);
}

nb::object matmul(nb::handle self, nb::handle other) {
    nb::object np = import_numpy();
    nb::object sp = import_sparse();
    if (is_ndarray(np, other) || is_sparse(sp, other))
        return names::MLinExpr().attr("_from_matmul_left")(self, other);
    if (is_a(other, names::MVar)) return matrix_product(toexpr(self), other);
    if (is_scalar(other)) refuse_scalar();
    return not_implemented();
}

nb::object rmatmul(nb::handle self, nb::handle other) {
    nb::object np = import_numpy();
    nb::object sp = import_sparse();
    if (is_ndarray(np, other) || is_sparse(sp, other))
        return names::MLinExpr().attr("_from_matmul_right")(other, self);
    if (is_scalar(other)) refuse_scalar();
    return not_implemented();
}

}  // namespace

void add_matmul_methods(ClassBody& body) {
    body.method<&matmul>("__matmul__(self, other)").method<&rmatmul>("__rmatmul__(self, other)");
}

}  // namespace taviropy::mvar
