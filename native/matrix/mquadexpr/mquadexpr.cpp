// MQuadExpr: the class, its docstring and its switches. The methods stand by family in the files
// beside this one.
#include "mquadexpr/mquadexpr.hpp"

#include "units.hpp"

namespace taviropy {

namespace {

constexpr const char* kClassDoc =
    R"(Matrix quadratic expression handle, acting as an array of QuadExpr objects.

MQuadExpr objects are created through operations with MVar and MLinExpr objects: adding, multiplying
element by element, multiplying matrices (``x @ Q @ x``, ``x * y``, ``x**2``). An all-zero expression
to add to comes from MQuadExpr.zeros.

Shape, dimensions and broadcasting are those of NumPy's ndarray; see the NumPy documentation.

ARITHMETIC:
  - ``+``, ``-``: numbers, arrays, sparse matrices (``+`` only), Var, LinExpr, QuadExpr, MVar, MLinExpr,
    MQuadExpr, with broadcasting. In place, the expression keeps its shape.
  - ``*``, ``/``, ``@`` with numbers, arrays and sparse matrices stay quadratic. With modelling objects,
    and under ``**``, the result is a nonlinear MNLExpr.
  - ``<=``, ``>=``, ``==`` give a TempConstr for Model.addConstr.)";

}  // namespace

void define_mquadexpr(nb::module_ module) {
    nb::dict attributes;
    attributes["__array_priority__"] = 100;
    attributes["_keep_compact"] = 1;
    ClassBody body(module, "MQuadExpr", kClassDoc, attributes, /*hashable=*/false);
    mquadexpr::add_form_methods(body);
    mquadexpr::add_build_methods(body);
    mquadexpr::add_index_methods(body);
    mquadexpr::add_text_methods(body);
    mquadexpr::add_addition_methods(body);
    mquadexpr::add_scaling_methods(body);
    mquadexpr::add_matmul_methods(body);
    mquadexpr::add_reduction_methods(body);
    mquadexpr::add_comparison_methods(body);
}

}  // namespace taviropy
