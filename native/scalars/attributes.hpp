// Attributes of model elements, through the package's attribute functions.
#pragma once

#include <vector>

#include "scalars.hpp"

namespace taviropy {

/// "Var", "Constr", "QConstr" or "GenConstr".
const char* kind_name(int kind);

/// One attribute of one element, as a plain Python value.
Ref read_attribute(HandleObject* handle, PyObject* name);
void write_attribute(HandleObject* handle, PyObject* name, PyObject* value);

/// The names of the attributes of a handle's kind, as a list.
Ref attribute_names(HandleObject* handle);

/// The value X of each variable at the last solution: one call of the attribute functions a model.
std::vector<double> solution_values(PyObject* const* vars, Py_ssize_t size);

/// The name of an element, which it also has while it waits and after its removal; its number of
/// creation where the model tells no name.
Ref element_name(HandleObject* handle);

}  // namespace taviropy
