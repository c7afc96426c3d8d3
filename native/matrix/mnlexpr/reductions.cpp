// What an MNLExpr comes to: sums along axes.

#include "core_interface/scalars.hpp"
#include "mnlexpr/mnlexpr.hpp"
#include "support/axes.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"

namespace taviropy::mnlexpr {

constexpr WalkFlags kEachList = {flag::zerosize_ok, {flag::readwrite}};

/// Replaces each element of `lists` by what the function gives for it.
template <class Function>
static void replace_each(nb::handle lists, Function&& function) {
    walk<1>(kEachList, {lists}, [&](const auto& chunks, Py_ssize_t k) {
        chunks[0].store(k, function(chunks[0].element(k)));
    });
}

static nb::object sum(nb::handle self, nb::handle axis) {
    nb::object np = import_numpy();
    nb::object nlearr = self.attr("_nlearr");
    nb::object axeslist = axes_list(axis, nlearr.attr("ndim"));
    nb::object outarr = empty_object_array(np, reduced_shape(nlearr.attr("shape"), axeslist));
    GcPause pause;
    replace_each(outarr, [](nb::handle) { return nb::list(); });
    walk_sums(nlearr, outarr, axeslist,
              [](PyObject* nle, PyObject* list) { append_to_list(list, nle); });
    nb::object from_plus = names::NLExpr().attr("_from_plus");
    replace_each(outarr, [&](nb::object elements) { return from_plus(*elements); });
    return make(outarr);
}

static constexpr const char* kSumDoc = R"(ROUTINE:
  sum(axis=None)

PURPOSE:
  Sum the expressions of this MNLExpr, over all axes or the given one.

ARGUMENTS:
  axis: (optional) the axis to sum along, an int; negative ones count from the last, and a tuple names
    several. None sums over all axes.

RETURN VALUE:
  MNLExpr of the shape that is left, () for a sum over all axes. Each element is one sum of the trees
  of its summands, which it shares with this object.

EXAMPLE:
  nl = x ** 3          # x of shape (2, 2)
  rowsums = nl.sum(axis=1)
  total = nl.sum()

NOTES:
  Raises TaviroError if the axis doesn't exist. A sum of no summands is a sum without terms, 0.)";

void add_reduction_methods(ClassBody& body) { body.method<&sum>("sum(self, axis=None)", kSumDoc); }

}  // namespace taviropy::mnlexpr
