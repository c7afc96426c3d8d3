// MNLExpr: matrix products.

#include "mnlexpr/mnlexpr.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"
#include "support/sparse.hpp"

namespace taviropy::mnlexpr {

using namespace nb::literals;

static nb::object _sum_terms(nb::handle terms) {
    nb::object nlexpr = names::NLExpr();
    if (nb::len(terms) == 1) return nlexpr(nb::object(terms[0]));
    return nlexpr(names::_ExprTree().attr("_from_plus")(*terms));
}

static bool is_one(nb::handle value) { return value.equal(nb::float_(1.0)); }

static nb::object _multiply_term_sparse_right(nb::handle left_tree, nb::handle right) {
    if (is_one(right)) return nb::borrow(left_tree);
    nb::object factory = names::_ExprTree();
    nb::object right_tree = factory.attr("_from_constant")(right);
    return factory.attr("_from_multiply")(left_tree, right_tree);
}

static nb::object _multiply_term_sparse_left(nb::handle left, nb::handle right_tree) {
    if (is_one(left)) return nb::borrow(right_tree);
    nb::object factory = names::_ExprTree();
    nb::object left_tree = factory.attr("_from_constant")(left);
    return factory.attr("_from_multiply")(left_tree, right_tree);
}

/// A matrix product by the kernel for the kind of operand that `other` is; NotImplemented where
/// there is none.
static nb::object kernel_product(nb::handle self, nb::handle other, bool reflected) {
    nb::object np = import_numpy(), sp = import_sparse();
    nb::object mnlexpr = names::MNLExpr();
    nb::object kernel, f_multiply, left, right;
    if (is_array_operand(np, other)) {
        kernel = names::_dense_matmul_kernel();
        f_multiply = names::_ExprTree().attr("_from_multiply");
        left = trees_of(reflected ? other : self);
        right = trees_of(reflected ? self : other);
    } else if (is_sparse(sp, other)) {
        sparse::check(other);
        kernel =
            reflected ? names::_sparse_left_matmul_kernel() : names::_sparse_right_matmul_kernel();
        f_multiply =
            mnlexpr.attr(reflected ? "_multiply_term_sparse_left" : "_multiply_term_sparse_right");
        left = reflected ? nb::borrow(other) : trees_of(self);
        right = reflected ? trees_of(self) : nb::borrow(other);
    } else {
        return not_implemented();
    }
    return make(kernel(left, right, "f_multiply"_a = f_multiply,
                       "f_sum"_a = nb::getattr(mnlexpr, "_sum_terms")));
}

static nb::object matmul(nb::handle self, nb::handle other) {
    return kernel_product(self, other, false);
}

static nb::object rmatmul(nb::handle self, nb::handle other) {
    return kernel_product(self, other, true);
}

void add_matmul_methods(ClassBody& body) {
    body.static_method<&_sum_terms>(
            "_sum_terms(terms)", R"(NLExpr of the sum of nodes; a single node stands by itself.)")
        .static_method<&_multiply_term_sparse_right>(
            "_multiply_term_sparse_right(left_tree, right)",
            R"(left_tree * right, for a number on the right.)")
        .static_method<&_multiply_term_sparse_left>(
            "_multiply_term_sparse_left(left, right_tree)",
            R"(left * right_tree, for a number on the left.)")
        .method<&matmul>("__matmul__(self, other)")
        .method<&rmatmul>("__rmatmul__(self, other)");
}

}  // namespace taviropy::mnlexpr
