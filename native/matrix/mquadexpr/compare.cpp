// MQuadExpr: the comparisons, which make constraints.

#include "mquadexpr/mquadexpr.hpp"
#include "support/comparisons.hpp"

namespace taviropy::mquadexpr {

void add_comparison_methods(ClassBody& body) { add_comparisons<names::MQuadExpr, 0>(body); }

}  // namespace taviropy::mquadexpr
