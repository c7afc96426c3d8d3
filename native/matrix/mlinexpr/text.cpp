// MLinExpr as text.

#include "mlinexpr/mlinexpr.hpp"
#include "support/imports.hpp"

namespace taviropy::mlinexpr {

using namespace nb::literals;

/// repr(learr) with a blank before the text of each element, less its `dtype=object`.
static nb::object elements_text(nb::handle learr) {
    nb::object np = import_numpy();
    nb::dict formatter;
    formatter["object"] = nb::getattr(nb::str(" {!s}"), "format");
    nb::object options = np.attr("printoptions")("formatter"_a = formatter);
    options.attr("__enter__")();
    nb::object text = nb::steal(PyObject_Repr(learr.ptr()));
    {
        nb::error_scope keep;  // leaving must not see, nor lose, an exception of repr
        options.attr("__exit__")(nb::none(), nb::none(), nb::none());
    }
    if (!text.is_valid()) throw nb::python_error();
    nb::object last = text.attr("rfind")(",");
    nb::object kept = text[nb::slice(nb::none(), last, nb::none())];
    return kept + nb::str(")");
}

static nb::object repr(nb::handle self) {
    nb::object target = nb::borrow(self);
    std::string auxinfo;
    if (is_compact(self)) {
        std::size_t parts = nb::len(parts_of(self));
        auxinfo.assign(1 + (parts < 2 ? parts : 2), ' ');
        target = _to_full(self);
    }
    nb::object elements = elements_text(learr_of(target));
    return nb::str(("<MLinExpr " + text_of(shape_of(self)) + auxinfo + ">\n").c_str()) + elements;
}

void add_text_methods(ClassBody& body) { body.method<&repr>("__repr__(self)"); }

}  // namespace taviropy::mlinexpr
