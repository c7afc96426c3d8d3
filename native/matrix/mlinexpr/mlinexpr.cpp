// MLinExpr: the class and its docstring. The methods stand by family in the files beside this one.
#include "mlinexpr/mlinexpr.hpp"

#include "units.hpp"

namespace taviropy {

static constexpr const char* kDoc =
    R"(Matrix linear expression handle, acting as an array of LinExpr objects.

Such objects are made by operations on MVar objects, as in ``A @ x + b``, or by
MLinExpr.zeros(); the constructor is not meant to be called. Shape, dimensions
and broadcasting are those of NumPy's ndarray, whose documentation explains them.
)";

void define_mlinexpr(nb::module_ module) {
    nb::dict attributes;
    attributes["__array_priority__"] = 100;
    attributes["_keep_compact"] = 1;
    ClassBody body(module, "MLinExpr", kDoc, attributes, /*hashable=*/false);
    mlinexpr::add_form_methods(body);
    mlinexpr::add_build_methods(body);
    mlinexpr::add_build_matmul_methods(body);
    mlinexpr::add_index_methods(body);
    mlinexpr::add_text_methods(body);
    mlinexpr::add_addition_methods(body);
    mlinexpr::add_scaling_methods(body);
    mlinexpr::add_matmul_methods(body);
    mlinexpr::add_reduction_methods(body);
    mlinexpr::add_comparison_methods(body);
}

}  // namespace taviropy
