// MNLExpr as text.

#include "mnlexpr/mnlexpr.hpp"
#include "support/imports.hpp"
#include "support/printing.hpp"

namespace taviropy::mnlexpr {

static nb::object repr(nb::handle self) {
    nb::object np = import_numpy();
    nb::object nlearr = self.attr("_nlearr");
    nb::object shape = nlearr.attr("shape");
    return block_text("MNLExpr", shape, "", array_text(np, nlearr, /*lead=*/""));
}

void add_text_methods(ClassBody& body) { body.method<&repr>("__repr__(self)"); }

}  // namespace taviropy::mnlexpr
