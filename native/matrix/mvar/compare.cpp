// MVar: the comparisons, which make constraints.

#include "mvar/mvar.hpp"
#include "support/comparisons.hpp"

namespace taviropy::mvar {

void add_comparison_methods(ClassBody& body) { add_comparisons<names::MVar, -1>(body); }

}  // namespace taviropy::mvar
