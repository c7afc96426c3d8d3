// MLinExpr as text.

#include <algorithm>

#include "mlinexpr/mlinexpr.hpp"
#include "support/imports.hpp"
#include "support/printing.hpp"

namespace taviropy::mlinexpr {

static nb::object repr(nb::handle self) {
    nb::object np = import_numpy();
    nb::object target = nb::borrow(self);
    std::string form;  // told by blanks: none for full, then one, two and three
    if (is_compact(self)) {
        form.assign(1 + std::min<std::size_t>(nb::len(parts_of(self)), 2), ' ');
        target = _to_full(self);
    }
    nb::object shape = shape_of(self);
    return block_text("MLinExpr", shape, form, array_text(np, learr_of(target), /*lead=*/" "));
}

void add_text_methods(ClassBody& body) { body.method<&repr>("__repr__(self)"); }

}  // namespace taviropy::mlinexpr
