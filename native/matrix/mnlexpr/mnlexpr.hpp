// MNLExpr: what its files call of each other in C++: its elements, operands and their trees.
#pragma once

#include <nanobind/nanobind.h>

#include "support/classes.hpp"
#include "support/errors.hpp"
#include "support/object_arrays.hpp"
#include "support/vectorize.hpp"

namespace taviropy::mnlexpr {

/// The interned name `_root`.
PyObject* root_name();

/// element._root
inline nb::object get_root(nb::handle element) {
    return checked(PyObject_GetAttr(element.ptr(), root_name()));
}

/// element._root = node
inline void set_root(nb::handle element, nb::handle node) {
    check(PyObject_SetAttr(element.ptr(), root_name(), node.ptr()));
}

/// function(*args), lean enough for a call per element.
template <class... Args>
nb::object call(nb::handle function, const Args&... args) {
    PyObject* stack[] = {nullptr, args.ptr()...};
    return checked(PyObject_Vectorcall(function.ptr(), stack + 1,
                                       sizeof...(Args) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

/// MNLExpr(nlearr)
nb::object make(nb::handle nlearr);

/// Whether a value has a shape: an ndarray or an object of a matrix class.
bool is_array_operand(nb::handle np, nb::handle value);

/// MNLExpr._coerce_to_exprtree_array(value)
nb::object trees_of(nb::handle value);

/// The trees of an operand: an array of nodes for an ndarray or an object of a matrix class, one
/// node for a number or a scalar object of the package, neither for anything else.
struct Trees {
    nb::object array, node;
    bool unknown() const { return !array.is_valid() && !node.is_valid(); }
};
Trees take_trees(nb::handle np, nb::handle value);

/// Flags of the passes that rewrite the elements of an array and never the array itself.
constexpr WalkFlags kRewriteAlone = {flag::buffered, {flag::readonly | flag::no_broadcast}, "O"};
constexpr WalkFlags kRewriteWithTrees = {
    flag::buffered, {flag::readonly | flag::no_broadcast, flag::readonly | flag::copy}, "OO"};

/// Visits the elements of `targets`, each with the tree of the operand that goes to its place:
/// `body(element, tree)`. The operand may broadcast, the targets may not.
template <class Body>
void walk_with_trees(nb::handle targets, const Trees& trees, Body&& body) {
    GcPause pause;
    if (trees.node.is_valid()) {
        walk<1>(kRewriteAlone, {targets},
                [&](const auto& chunks, Py_ssize_t k) { body(chunks[0].element(k), trees.node); });
        return;
    }
    walk<2>(kRewriteWithTrees, {targets, trees.array}, [&](const auto& chunks, Py_ssize_t k) {
        body(chunks[0].element(k), chunks[1].element(k));
    });
}

// ---- The families' methods, added to the class by define_mnlexpr --------------------------------

void add_form_methods(ClassBody& body);
void add_build_methods(ClassBody& body);
void add_index_methods(ClassBody& body);
void add_text_methods(ClassBody& body);
void add_arithmetic_methods(ClassBody& body);
void add_matmul_methods(ClassBody& body);
void add_reduction_methods(ClassBody& body);
void add_comparison_methods(ClassBody& body);

}  // namespace taviropy::mnlexpr
