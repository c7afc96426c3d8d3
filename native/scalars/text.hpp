// The texts of expressions: of bounded length, however large the expression.
#pragma once

#include "scalars.hpp"

namespace taviropy {

/// As "1.0 + 2.0 x[0] + -3.0 y".
Ref linexpr_text(LinExprObject* linexpr);
/// As "1.0 + 2.0 x[0] + 4.0 x[0] * y".
Ref quadexpr_text(QuadExprObject* quadexpr);
/// As "plus(x[0]; pow(y; 3.0))".
Ref tree_text(PyObject* root);

}  // namespace taviropy
