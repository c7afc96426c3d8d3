#include "support/vectorize.hpp"

#include <cstring>

#include "support/names.hpp"

namespace taviropy::detail {

using namespace nb::literals;

/// Whether all operands are C-contiguous and of one shape.
static bool alike(const nb::handle* operands, std::size_t count) {
    ArrayBuffer buffers[2];
    for (std::size_t k = 0; k < count; ++k) {
        if (!buffers[k].acquire(operands[k], PyBUF_C_CONTIGUOUS)) return false;
        const Py_buffer &first = *buffers[0], &view = *buffers[k];
        if (view.ndim != first.ndim) return false;
        if (view.ndim > 0 &&
            std::memcmp(view.shape, first.shape, sizeof(Py_ssize_t) * view.ndim) != 0)
            return false;
    }
    return true;
}

nb::object empty_result(nb::handle np, const nb::handle* operands, std::size_t count) {
    if (alike(operands, count)) return empty_object_array(np, operands[0].attr("shape"));
    nb::list all, op_flags, flags;
    for (std::size_t k = 0; k < count; ++k) {
        all.append(operands[k]);
        op_flags.append(nb::make_tuple("readonly"));
    }
    all.append(nb::none());
    op_flags.append(nb::make_tuple("writeonly", "allocate"));
    flags.append("refs_ok");
    flags.append("zerosize_ok");
    nb::object iterator = np.attr("nditer")(all, "flags"_a = flags, "op_flags"_a = op_flags);
    nb::object result = iterator.attr("operands")[count];
    iterator.attr("close")();
    return result;
}

}  // namespace taviropy::detail

namespace taviropy {

void refuse_empty(nb::handle array) {
    if (!truth(array.attr("size")))
        raise(PyExc_ValueError, "cannot call `vectorize` on size 0 inputs unless `otypes` is set");
}

}  // namespace taviropy
