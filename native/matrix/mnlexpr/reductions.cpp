// MNLExpr: matrix products and sums.

#include "core_interface/scalars.hpp"
#include "mnlexpr/methods.hpp"
#include "mnlexpr/trees.hpp"
#include "support/axes.hpp"
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
static nb::object product(nb::handle self, nb::handle other, bool reflected) {
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

static nb::object matmul(nb::handle self, nb::handle other) { return product(self, other, false); }

static nb::object rmatmul(nb::handle self, nb::handle other) { return product(self, other, true); }

// ---- Sum ----------------------------------------------------------------------------------------

static const WalkFlags kEachList = {"refs_ok external_loop zerosize_ok", {"readwrite"}, nullptr};

/// Replaces each element of `lists` by what the function gives for it.
template <class Function>
static void replace_each(nb::handle lists, Function&& function) {
    walk<1>(kEachList, {lists}, [&](const auto& chunks, Py_ssize_t size) {
        for (Py_ssize_t k = 0; k < size; ++k) chunks[0].store(k, function(chunks[0].element(k)));
    });
}

static nb::object sum(nb::handle self, nb::handle axis) {
    nb::object np = import_numpy();
    nb::object nlearr = self.attr("_nlearr");
    nb::object axeslist = axes_list(axis, nlearr.attr("ndim"));
    nb::object outarr = empty_object_array(np, reduced_shape(nlearr.attr("shape"), axeslist));
    GcPause pause;
    replace_each(outarr, [](nb::handle) { return nb::list(); });
    walk_sums(nlearr, outarr, axeslist,
              [](PyObject* nle, PyObject* list) { append_to_list(list, nle); });
    nb::object from_plus = names::NLExpr().attr("_from_plus");
    replace_each(outarr, [&](nb::object elements) { return from_plus(*elements); });
    return make(outarr);
}

static constexpr const char* kSumDoc = R"(ROUTINE:
  sum(axis=None)

PURPOSE:
  Sum the expressions of this MNLExpr, over all axes or the given one.

ARGUMENTS:
  axis: (optional) the axis to sum along, an int; negative ones count from the last, and a tuple names
    several. None sums over all axes.

RETURN VALUE:
  MNLExpr of the shape that is left, () for a sum over all axes. Each element is one sum of the trees
  of its summands, which it shares with this object.

EXAMPLE:
  nl = x ** 3          # x of shape (2, 2)
  rowsums = nl.sum(axis=1)
  total = nl.sum()

NOTES:
  Raises TaviroError if the axis doesn't exist. A sum of no summands is a sum without terms, 0.)";

void add_reduction_methods(ClassBody& body) {
    body.static_method<&_sum_terms>("_sum_terms(terms)",
                                    "NLExpr of the sum of nodes; a single node stands by itself.")
        .static_method<&_multiply_term_sparse_right>(
            "_multiply_term_sparse_right(left_tree, right)",
            "left_tree * right, for a number on the right.")
        .static_method<&_multiply_term_sparse_left>("_multiply_term_sparse_left(left, right_tree)",
                                                    "left * right_tree, for a number on the left.")
        .method<&matmul>("__matmul__(self, other)")
        .method<&rmatmul>("__rmatmul__(self, other)")
        .method<&sum>("sum(self, axis=None)", kSumDoc);
}

}  // namespace taviropy::mnlexpr
