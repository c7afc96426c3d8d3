// MQuadExpr as text.

#include <algorithm>

#include "mquadexpr/mquadexpr.hpp"
#include "support/imports.hpp"
#include "support/printing.hpp"

namespace taviropy::mquadexpr {

static nb::object repr(nb::handle self) {
    auto np = import_numpy();
    nb::object target = nb::borrow(self);
    std::string form;  // told by blanks: none for full, then one, two and three
    if (is_compact(self)) {
        form.assign(1 + std::min<std::size_t>(nb::len(parts_of(self)), 2), ' ');
        target = _to_full(self);
    }
    nb::object ndle = target.attr("_ndle");
    if (truth(ndle.attr("_is_compact"))) ndle = ndle.attr("_to_full")();
    nb::object elements = np.attr("asarray")(target.attr("_qearr") + ndle.attr("_learr"));
    nb::object shape = target.attr("shape");
    return block_text("MQuadExpr", shape, form, array_text(np, elements, /*lead=*/" "));
}

void add_text_methods(ClassBody& body) { body.method<&repr>("__repr__(self)"); }

}  // namespace taviropy::mquadexpr
