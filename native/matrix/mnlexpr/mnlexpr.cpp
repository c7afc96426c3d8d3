// MNLExpr: an array of scalar nonlinear expressions, each a tree of nodes.
//
// The class has one form, an object array in `_nlearr`. Operators make a new node per element on
// top of the operands' nodes, which are shared and never copied; in-place operators put the new
// node into the element itself, so whoever shares the element sees it.

#include "mnlexpr/mnlexpr.hpp"

#include "units.hpp"

namespace taviropy {

static constexpr const char* kDoc =
    R"(Matrix nonlinear expression handle, acting as an array of NLExpr objects.

The user gets such objects from `MVar.nl`, from arithmetic that leaves the linear and quadratic
expressions (`x ** 3`, `1 / x`) or from the nonlinear functions of the package, and never calls the
constructor. Shape, dimensions and broadcasting are those of NumPy's ndarray; see the NumPy
documentation.)";

void define_mnlexpr(nb::module_ module) {
    nb::dict attributes;
    attributes["__array_priority__"] = 100;
    ClassBody body(module, "MNLExpr", kDoc, attributes);
    mnlexpr::add_form_methods(body);
    mnlexpr::add_build_methods(body);
    mnlexpr::add_index_methods(body);
    mnlexpr::add_text_methods(body);
    mnlexpr::add_arithmetic_methods(body);
    mnlexpr::add_matmul_methods(body);
    mnlexpr::add_reduction_methods(body);
    mnlexpr::add_comparison_methods(body);
}

}  // namespace taviropy
