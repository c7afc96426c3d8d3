#include "support/object_arrays.hpp"

#include <cstring>
#include <string>

#include "core_interface/scalars.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"

namespace taviropy {

nb::object empty_object_array(nb::handle np, nb::handle shape) {
    return np.attr("empty")(shape, nb::handle(reinterpret_cast<PyObject*>(&PyBaseObject_Type)));
}

/// A scalar object of the package: NumPy doesn't take it for a sequence.
static bool is_scalar_object(nb::handle element) {
    PyTypeObject* type = Py_TYPE(element.ptr());
    nb::handle handle(reinterpret_cast<PyObject*>(type));
    return type == linexpr_type() || type == quadexpr_type() || handle.is(names::Var()) ||
           handle.is(names::Constr()) || handle.is(names::QConstr()) ||
           handle.is(names::GenConstr());
}

nb::object array_of_one(nb::handle np, nb::handle element) {
    // NumPy would ask the element for half a dozen attributes that would make it an array.
    if (!is_scalar_object(element)) return np.attr("array")(element);
    nb::tuple nothing;
    nb::object array = empty_object_array(np, nothing);
    check(PyObject_SetItem(array.ptr(), nothing.ptr(), element.ptr()));
    return array;
}

namespace detail {

namespace {

/// Words for the bits of a set of flags, the lowest first.
struct Vocabulary {
    const char* words[6];
    PyObject* lists[64] = {};

    /// The words of the bits that are set, as a list that is made once and kept for good.
    nb::handle list_of(unsigned bits) {
        if (!lists[bits]) {
            nb::list made;
            for (int k = 0; k < 6; ++k)
                if (bits >> k & 1) made.append(words[k]);
            lists[bits] = made.release().ptr();
        }
        return lists[bits];
    }
};

constexpr unsigned kEveryPass = 8 | 16;
Vocabulary pass_words = {{"buffered", "reduce_ok", "zerosize_ok", "refs_ok", "external_loop"}};
Vocabulary operand_words = {
    {"readonly", "readwrite", "writeonly", "no_broadcast", "copy", "updateifcopy"}};

/// The buffer that a pass asks an operand for.
int buffer_flags(unsigned operand) {
    return PyBUF_FORMAT | (operand & flag::readonly ? 0 : PyBUF_WRITABLE);
}

}  // namespace

Py_ssize_t whole_chunk(const WalkFlags& flags, const nb::handle* operands, std::size_t count,
                       ArrayBuffer* buffers, Chunk* chunks) {
    for (std::size_t k = 0; k < count; ++k) {
        if (!buffers[k].acquire(operands[k], PyBUF_C_CONTIGUOUS | buffer_flags(flags.operands[k])))
            return -1;
        if (!buffers[k].holds(flags.dtypes ? flags.dtypes[k] : 'O')) return -1;
        const Py_buffer &first = *buffers[0], &view = *buffers[k];
        if (view.ndim != first.ndim) return -1;
        if (first.ndim > 0 &&
            std::memcmp(view.shape, first.shape, sizeof(Py_ssize_t) * first.ndim) != 0)
            return -1;
        chunks[k] = {static_cast<char*>(view.buf), view.itemsize};
    }
    Py_ssize_t size = buffers[0]->len / buffers[0]->itemsize;
    if (size == 0 && !(flags.pass & flag::zerosize_ok)) return -1;
    return size;
}

Nditer::Nditer(const WalkFlags& flags, const nb::handle* operands, std::size_t count,
               nb::handle op_axes)
    : flags_(flags), count_(count) {
    nb::object np = import_numpy();
    nb::list arrays, op_flags, op_dtypes;
    for (std::size_t k = 0; k < count; ++k) {
        arrays.append(operands[k]);
        op_flags.append(operand_words.list_of(flags.operands[k]));
        if (flags.dtypes) op_dtypes.append(nb::str(flags.dtypes + k, 1));
    }
    nb::dict options;
    options["flags"] = pass_words.list_of(flags.pass | kEveryPass);
    options["op_flags"] = op_flags;
    if (flags.dtypes) options["op_dtypes"] = op_dtypes;
    if (op_axes.is_valid()) options["op_axes"] = op_axes;
    iterator_ = np.attr("nditer")(arrays, **options);
    iterator_.attr("__enter__")();
}

Nditer::~Nditer() {
    if (!open_) return;
    // An exception is on its way; what closing raises besides is lost, as with a `with` block it
    // would hide the first.
    PyObject* result = PyObject_CallMethod(iterator_.ptr(), "close", nullptr);
    if (!result) PyErr_Clear();
    Py_XDECREF(result);
}

void Nditer::close() {
    open_ = false;
    iterator_.attr("close")();
}

Py_ssize_t Nditer::next(ArrayBuffer* buffers, Chunk* chunks) {
    for (std::size_t k = 0; k < count_; ++k) buffers[k].release();
    PyObject* raw = PyIter_Next(iterator_.ptr());
    if (!raw) {
        if (PyErr_Occurred()) throw nb::python_error();
        return -1;
    }
    nb::object step = nb::steal(raw);
    Py_ssize_t size = 0;
    for (std::size_t k = 0; k < count_; ++k) {
        nb::object chunk = count_ == 1 ? step : nb::object(step[k]);
        if (!buffers[k].acquire(chunk, PyBUF_STRIDES | buffer_flags(flags_.operands[k])) ||
            buffers[k]->ndim != 1 || !buffers[k].holds(flags_.dtypes ? flags_.dtypes[k] : 'O'))
            raise(PyExc_AttributeError,
                  "the elements of an array of dtype " + text_of(chunk.attr("dtype")) +
                      " are no expressions; the arrays of an expression hold objects");
        chunks[k] = {static_cast<char*>(buffers[k]->buf), buffers[k]->strides[0]};
        size = buffers[k]->shape[0];
    }
    return size;
}

nb::object sum_op_axes(nb::handle axes) {
    nb::list list;
    list.append(nb::none());
    list.append(axes);
    return list;
}

bool plan_sums(SumPlan& plan, nb::handle summands, nb::handle sums, nb::handle axes) {
    constexpr int flags = PyBUF_C_CONTIGUOUS | PyBUF_FORMAT | PyBUF_WRITABLE;
    if (!plan.in.acquire(summands, flags) || !plan.in.holds('O')) return false;
    if (!plan.out.acquire(sums, flags) || !plan.out.holds('O')) return false;
    plan.ndim = plan.in->ndim;
    if (plan.ndim > kMaxAxes || nb::len(axes) != static_cast<std::size_t>(plan.ndim)) return false;
    bool taken[kMaxAxes] = {};
    for (int axis = 0; axis < plan.ndim; ++axis) {
        long to = PyLong_AsLong(nb::object(axes[axis]).ptr());
        if (to == -1 && PyErr_Occurred()) throw nb::python_error();
        if (to >= plan.out->ndim || (to >= 0 && taken[to])) return false;
        if (to >= 0) taken[to] = true;
        plan.shape[axis] = plan.in->shape[axis];
        plan.step[axis] = to < 0 ? 0 : plan.out->strides[to] / plan.out->itemsize;
        if (to >= 0 && plan.out->shape[to] != plan.shape[axis]) return false;
    }
    return true;
}

}  // namespace detail

}  // namespace taviropy
