// How an MVar comes into being: from variables, lists of them, and other MVars.

#include <cstdio>

#include "mvar/mvar.hpp"
#include "support/errors.hpp"
#include "support/handles.hpp"
#include "support/imports.hpp"
#include "support/object_arrays.hpp"

namespace taviropy::mvar {

using namespace nb::literals;

namespace {

constexpr const char* kFromlistDoc = R"(ROUTINE:
  fromlist(varlist)

PURPOSE:
  Make an MVar of existing variables.

ARGUMENTS:
  varlist: a list of Var objects, or nested lists of them.

RETURN VALUE:
  An MVar, 1-D for a plain list. ValueError names an element that is no Var.

EXAMPLE:
  x = MVar.fromlist([v0, v1, v2])
  y = MVar.fromlist([[v0, v1], [v2, v3]])  # shape (2, 2))";

bool is_list_of_vars(nb::handle object) {
    if (!PyList_Check(object.ptr())) return false;
    nb::object Var = names::Var();
    for (Py_ssize_t k = 0; k < PyList_GET_SIZE(object.ptr()); ++k)
        if (!is_instance(nb::borrow(PyList_GET_ITEM(object.ptr(), k)), Var)) return false;
    return true;
}

/// np.lib.NumpyVersion(np.__version__) >= "1.23.0": since then np.fromiter takes objects.
bool has_fromiter_of_objects(nb::handle np) {
    nb::object version = np.attr("__version__");
    int major = 0, minor = 0, end = 0;
    const char* text = PyUnicode_Check(version.ptr()) ? PyUnicode_AsUTF8(version.ptr()) : nullptr;
    if (text && std::sscanf(text, "%2d.%2d.%n", &major, &minor, &end) == 2 && end > 0 &&
        (major != 1 || minor != 23))
        return major > 1 || (major == 1 && minor > 23);
    PyErr_Clear();
    return np.attr("lib").attr("NumpyVersion")(version) >= nb::str("1.23.0");
}

nb::object fromlist(nb::handle varlist) {
    nb::object np = import_numpy();
    // Unlike np.array, np.fromiter doesn't ask each variable for its items.
    if (has_fromiter_of_objects(np) && is_list_of_vars(varlist))
        return new_mvar(
            np.attr("fromiter")(varlist, "count"_a = nb::len(varlist), "dtype"_a = "O"));
    nb::object vararr = np.attr("array")(varlist, "dtype"_a = "O");
    nb::object stranger = handles::find_stranger(kMVar, vararr);
    if (stranger.is_valid()) handles::refuse_stranger(kMVar, stranger);
    return new_mvar(vararr);
}

constexpr const char* kFromvarDoc = R"(ROUTINE:
  fromvar(var)

PURPOSE:
  Make a 0-d MVar of one variable.

ARGUMENTS:
  var: a Var.

RETURN VALUE:
  An MVar of shape ().

EXAMPLE:
  x = MVar.fromvar(model.addVar()))";

nb::object fromvar(nb::handle var) {
    nb::object np = import_numpy();
    return new_mvar(is_a(var, names::Var) ? array_of_one(np, var)
                                          : np.attr("array")(var, "dtype"_a = "O"));
}

constexpr const char* kCopyDoc = R"(ROUTINE:
  copy()

PURPOSE:
  Make a new handle on the same variables.

ARGUMENTS:
  None.

RETURN VALUE:
  An MVar of the same shape. It shares the array of variables.

EXAMPLE:
  y = x.copy())";

nb::object copy(nb::handle self) { return new_mvar(self.attr("_vararr")); }

}  // namespace

void add_build_methods(ClassBody& body) {
    body.static_method<&fromlist>("fromlist(varlist)", kFromlistDoc)
        .static_method<&fromvar>("fromvar(var)", kFromvarDoc)
        .method<&copy>("copy(self)", kCopyDoc);
}

}  // namespace taviropy::mvar
