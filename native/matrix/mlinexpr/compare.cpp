// MLinExpr: the comparisons, which make constraints.

#include "mlinexpr/mlinexpr.hpp"
#include "support/comparisons.hpp"

namespace taviropy::mlinexpr {

void add_comparison_methods(ClassBody& body) { add_comparisons<names::MLinExpr, 0>(body); }

}  // namespace taviropy::mlinexpr
