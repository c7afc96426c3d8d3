// MNLExpr as text.

#include "mnlexpr/mnlexpr.hpp"
#include "support/imports.hpp"
#include "support/printing.hpp"

namespace taviropy::mnlexpr {

static nb::object repr(nb::handle self) {
    nb::object np = import_numpy();
    nb::object nlearr = self.attr("_nlearr");
    std::string text = "<MNLExpr " + text_of(nlearr.attr("shape")) + ">\n" + array_text(np, nlearr);
    return nb::str(text.c_str(), text.size());
}

void add_text_methods(ClassBody& body) { body.method<&repr>("__repr__(self)"); }

}  // namespace taviropy::mnlexpr
