#include "support/object_arrays.hpp"

#include <cstring>
#include <string>
#include <string_view>

#include "core_interface/scalars.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"

namespace taviropy {

using namespace nb::literals;

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

bool has_word(const char* words, std::string_view word) {
    std::string_view rest(words);
    while (!rest.empty()) {
        auto blank = rest.find(' ');
        if (rest.substr(0, blank) == word) return true;
        rest = blank == std::string_view::npos ? std::string_view() : rest.substr(blank + 1);
    }
    return false;
}

nb::list word_list(const char* words) {
    nb::list result;
    std::string_view rest(words);
    while (!rest.empty()) {
        auto blank = rest.find(' ');
        std::string_view word = rest.substr(0, blank);
        result.append(nb::str(word.data(), word.size()));
        rest = blank == std::string_view::npos ? std::string_view() : rest.substr(blank + 1);
    }
    return result;
}

bool writes(const char* op_flags) { return std::strncmp(op_flags, "readonly", 8) != 0; }

/// The keyword values of the call, made once and kept for good.
void make_lists(const WalkFlags& spec, std::size_t count) {
    if (spec.made[0]) return;
    nb::list op_flags, op_dtypes;
    for (std::size_t k = 0; k < count; ++k) {
        op_flags.append(word_list(spec.op_flags[k]));
        if (spec.op_dtypes) op_dtypes.append(nb::str(spec.op_dtypes + k, 1));
    }
    spec.made[2] = (spec.op_dtypes ? nb::object(op_dtypes) : nb::none()).release().ptr();
    spec.made[1] = op_flags.release().ptr();
    spec.made[0] = word_list(spec.flags).release().ptr();
}

}  // namespace

Py_ssize_t whole_chunk(const WalkFlags& spec, const nb::handle* operands, std::size_t count,
                       ArrayBuffer* buffers, Chunk* chunks) {
    for (std::size_t k = 0; k < count; ++k) {
        int flags =
            PyBUF_C_CONTIGUOUS | PyBUF_FORMAT | (writes(spec.op_flags[k]) ? PyBUF_WRITABLE : 0);
        if (!buffers[k].acquire(operands[k], flags)) return -1;
        if (!buffers[k].holds(spec.op_dtypes ? spec.op_dtypes[k] : 'O')) return -1;
        const Py_buffer &first = *buffers[0], &view = *buffers[k];
        if (view.ndim != first.ndim) return -1;
        if (first.ndim > 0 &&
            std::memcmp(view.shape, first.shape, sizeof(Py_ssize_t) * first.ndim) != 0)
            return -1;
        chunks[k] = {static_cast<char*>(view.buf), view.itemsize};
    }
    Py_ssize_t size = buffers[0]->len / buffers[0]->itemsize;
    if (size == 0 && !has_word(spec.flags, "zerosize_ok")) return -1;
    return size;
}

Nditer::Nditer(const WalkFlags& spec, const nb::handle* operands, std::size_t count,
               nb::handle op_axes)
    : spec_(spec), count_(count) {
    make_lists(spec, count);
    nb::object np = import_numpy();
    nb::list list;
    for (std::size_t k = 0; k < count; ++k) list.append(operands[k]);
    nb::dict options;
    options["flags"] = nb::handle(spec.made[0]);
    options["op_flags"] = nb::handle(spec.made[1]);
    if (spec.op_dtypes) options["op_dtypes"] = nb::handle(spec.made[2]);
    if (op_axes.is_valid()) options["op_axes"] = op_axes;
    iterator_ = np.attr("nditer")(list, **options);
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
        int flags = PyBUF_STRIDES | PyBUF_FORMAT | (writes(spec_.op_flags[k]) ? PyBUF_WRITABLE : 0);
        if (!buffers[k].acquire(chunk, flags) || buffers[k]->ndim != 1 ||
            !buffers[k].holds(spec_.op_dtypes ? spec_.op_dtypes[k] : 'O'))
            raise(PyExc_AttributeError,
                  "the elements of an array of dtype " + text_of(chunk.attr("dtype")) +
                      " are no expressions; the arrays of an expression hold objects");
        chunks[k] = {static_cast<char*>(buffers[k]->buf), buffers[k]->strides[0]};
        size = buffers[k]->shape[0];
    }
    return size;
}

const WalkFlags kSumFlags = {
    "refs_ok reduce_ok external_loop buffered zerosize_ok", {"readwrite", "readwrite"}, "OO"};

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
