#include "support/axes.hpp"

#include "support/errors.hpp"
#include "support/names.hpp"

namespace taviropy {

nb::object axes_list(nb::handle axis, nb::handle ndim) {
    try {
        return names::_axis_to_axeslist()(axis, ndim);
    } catch (nb::python_error& error) {
        if (!error.matches(PyExc_IndexError)) throw;
    }
    raise_taviro_error(-1, "Invalid axis specifications: " + format_of(axis));
}

nb::object reduced_shape(nb::handle shape, nb::handle axeslist) {
    nb::list lengths;
    std::size_t pos = 0;
    for (nb::handle length : shape)
        if (nb::cast<long>(axeslist[pos++]) != -1) lengths.append(length);
    return nb::tuple(lengths);
}

}  // namespace taviropy
