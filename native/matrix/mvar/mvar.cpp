// MVar: the class and its docstring. The methods stand by family in the files beside this one.
#include "mvar/mvar.hpp"

#include "units.hpp"

namespace taviropy {

static constexpr const char* kClassDoc =
    R"(Matrix variable handle, acting as an array of Var objects.

Users create such objects through Model.addMVar() or MVar.fromlist(). Shape,
dimensions, indexing and broadcasting are those of numpy.ndarray; see there.
An MVar never changes: operators give new objects, which may share its array.

An attribute of the model is read and written for all variables at once, as
an array of the shape of the MVar: x.UB, x.LB = 0.0. On an empty MVar every
attribute name reads as an empty array, also the names by which NumPy, SciPy
and copy.deepcopy ask what an object can do: these three fail on an empty MVar
where they ask, as with a SciPy sparse matrix on its left.)";

void define_mvar(nb::module_ module) {
    nb::dict attributes;
    attributes["__array_priority__"] = 100;
    ClassBody body(module, "MVar", kClassDoc, attributes, /*hashable=*/false);
    mvar::add_form_methods(body);
    mvar::add_build_methods(body);
    mvar::add_index_methods(body);
    mvar::add_text_methods(body);
    mvar::add_attribute_methods(body);
    mvar::add_arithmetic_methods(body);
    mvar::add_matmul_methods(body);
    mvar::add_reduction_methods(body);
    mvar::add_comparison_methods(body);
}

}  // namespace taviropy
