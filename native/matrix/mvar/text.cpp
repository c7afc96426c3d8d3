// MVar as text.

#include "mvar/mvar.hpp"
#include "support/handles.hpp"
#include "support/imports.hpp"
#include "support/printing.hpp"

namespace taviropy::mvar {

namespace {

nb::object repr(nb::handle self) {
    import_numpy();
    nb::object shape = self.attr("shape");
    handles::Places places = handles::look_at_places(self.attr("_idxarr")());
    std::string marks;
    if (places.waiting) marks += " *awaiting update*";
    if (places.removed) marks += " (some removed)";
    return block_text("MVar", shape, marks, array_text(nb::object(self.attr("_vararr"))));
}

}  // namespace

void add_text_methods(ClassBody& body) { body.method<&repr>("__repr__(self)"); }

}  // namespace taviropy::mvar
