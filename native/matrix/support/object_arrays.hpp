// Element-wise passes over object arrays.
//
// Every pass is one call of numpy.nditer: its flags decide what broadcasts, what is cast and what
// is refused. It hands out one-dimensional chunks, and a native loop visits their slots. Where
// all operands are C-contiguous, of one shape and of the right type, the iterator would give the
// whole of them as one chunk in that order, so it isn't even made.
#pragma once

#include <nanobind/nanobind.h>

#include <array>
#include <cstddef>
#include <utility>

#include "base/arrays.hpp"
#include "support/errors.hpp"

namespace taviropy {

/// A one-dimensional strided view of one operand's slots. A slot of a `writeonly` operand may be
/// empty.
struct Chunk {
    char* data = nullptr;
    Py_ssize_t stride = 0;

    PyObject*& operator[](Py_ssize_t k) const {
        return *reinterpret_cast<PyObject**>(data + k * stride);
    }
    double& number(Py_ssize_t k) const { return *reinterpret_cast<double*>(data + k * stride); }

    /// The object in slot k, held while code of others runs; None for an empty slot, as NumPy reads
    /// it.
    nb::object element(Py_ssize_t k) const {
        PyObject* slot = (*this)[k];
        return nb::borrow(slot ? slot : Py_None);
    }

    /// Puts a new object into slot k.
    void store(Py_ssize_t k, nb::object value) const {
        PyObject* old = (*this)[k];
        (*this)[k] = value.release().ptr();
        Py_XDECREF(old);
    }
};

/// The flags of numpy.nditer, by its names for them.
namespace flag {
/// Of a pass; `refs_ok` and `external_loop` go without saying.
enum : unsigned { none = 0, buffered = 1, reduce_ok = 2, zerosize_ok = 4 };
/// Of an operand.
enum : unsigned {
    readonly = 1,
    readwrite = 2,
    writeonly = 4,
    no_broadcast = 8,
    copy = 16,
    updateifcopy = 32
};
}  // namespace flag

/// How a pass treats its operands: `{flag::buffered, {flag::readwrite, flag::readonly}, "Od"}`.
struct WalkFlags {
    unsigned pass;
    unsigned operands[3];
    const char* dtypes = nullptr;  ///< one letter for each operand, 'O' or 'd'; null for any dtype
};

/// A buffer of an array, acquired by nanobind's handle on it.
class ArrayBuffer : public base::Buffer {
  public:
    bool acquire(nb::handle array, int flags) { return Buffer::acquire(array.ptr(), flags); }
};

namespace detail {

/// One chunk an operand where the whole pass is one; -1 where numpy.nditer has to be asked.
Py_ssize_t whole_chunk(const WalkFlags& flags, const nb::handle* operands, std::size_t count,
                       ArrayBuffer* buffers, Chunk* chunks);

/// A numpy.nditer in its `with` block.
class Nditer {
  public:
    Nditer(const WalkFlags& flags, const nb::handle* operands, std::size_t count,
           nb::handle op_axes = nb::handle());
    ~Nditer();
    /// The next chunks and their length; -1 at the end.
    Py_ssize_t next(ArrayBuffer* buffers, Chunk* chunks);
    /// Leaves the `with` block normally, which writes back what was buffered.
    void close();

  private:
    const WalkFlags& flags_;
    std::size_t count_;
    nb::object iterator_;
    bool open_ = true;
};

}  // namespace detail

/// No collection of garbage in the middle of a pass that makes many objects and frees none. Every
/// walk has one; so has an operation of several passes, which would be interrupted between them.
class GcPause {
  public:
    GcPause() : was_enabled_(PyGC_Disable() != 0) {}
    ~GcPause() {
        if (was_enabled_) PyGC_Enable();
    }
    GcPause(const GcPause&) = delete;
    GcPause& operator=(const GcPause&) = delete;

  private:
    bool was_enabled_;
};

/// Walks the operands side by side: `body(chunks, k)` for each place k, chunks being an array of N.
/// With `op_axes`, a list as numpy.nditer takes it, the iterator is always asked.
template <std::size_t N, class Body>
void walk(const WalkFlags& flags, const std::array<nb::handle, N>& operands, Body&& body,
          nb::handle op_axes = nb::handle()) {
    GcPause pause;
    std::array<ArrayBuffer, N> buffers;
    std::array<Chunk, N> chunks;
    auto visit = [&](Py_ssize_t size) {
        for (Py_ssize_t k = 0; k < size; ++k) body(std::as_const(chunks), k);
    };
    if (!op_axes.is_valid()) {
        Py_ssize_t size =
            detail::whole_chunk(flags, operands.data(), N, buffers.data(), chunks.data());
        if (size >= 0) return visit(size);
    }
    detail::Nditer iterator(flags, operands.data(), N, op_axes);
    for (Py_ssize_t size; (size = iterator.next(buffers.data(), chunks.data())) >= 0;) visit(size);
    for (ArrayBuffer& buffer : buffers) buffer.release();
    iterator.close();
}

/// A float64 array with a number for each element of an array: `number_of(element)`.
template <class NumberOf>
nb::object doubles_of(nb::handle np, nb::handle elements, NumberOf&& number_of) {
    constexpr WalkFlags flags = {
        flag::buffered | flag::zerosize_ok, {flag::readonly, flag::writeonly}, "Od"};
    nb::object result = np.attr("empty")(nb::getattr(elements, "shape"));
    walk<2>(flags, {elements, result}, [&](const auto& chunks, Py_ssize_t k) {
        chunks[1].number(k) = number_of(chunks[0].element(k));
    });
    return result;
}

/// Walks `summands` and `sums`, each summand with the sum that it goes to: `body(summand, sum)`.
/// `axes` has an entry for each axis of `summands`: -1 where it is summed away, else its place in
/// the result. `sums` is a C-contiguous object array of the shape that is left.
template <class Body>
void walk_sums(nb::handle summands, nb::handle sums, nb::handle axes, Body&& body);

/// A new list of so many objects: `make(k)` gives a new reference to each, or null with an
/// exception set.
template <class Make>
nb::object list_of(Py_ssize_t size, Make&& make) {
    nb::object list = checked(PyList_New(size));
    for (Py_ssize_t k = 0; k < size; ++k) {
        PyObject* item = make(k);
        if (!item) throw nb::python_error();
        PyList_SET_ITEM(list.ptr(), k, item);
    }
    return list;
}

/// The doubles of a chunk as a new list of floats.
inline nb::object float_list(const Chunk& chunk, Py_ssize_t size) {
    return list_of(size, [&](Py_ssize_t k) { return PyFloat_FromDouble(chunk.number(k)); });
}

/// The objects of a chunk as a new list.
inline nb::object object_list(const Chunk& chunk, Py_ssize_t size) {
    return list_of(size, [&](Py_ssize_t k) { return chunk.element(k).release().ptr(); });
}

/// np.empty(shape, dtype=object)
nb::object empty_object_array(nb::handle np, nb::handle shape);

/// np.array(element): a 0-d object array around one element.
nb::object array_of_one(nb::handle np, nb::handle element);

// ---- walk_sums ----------------------------------------------------------------------------------

namespace detail {

constexpr int kMaxAxes = 64;

/// C-order positions of a reduction over a C-contiguous array, as an odometer.
struct SumPlan {
    ArrayBuffer in, out;
    int ndim = 0;
    Py_ssize_t shape[kMaxAxes], step[kMaxAxes];  ///< step: slots of `sums` that an axis moves by
};

/// False where the arrays aren't both C-contiguous, so that numpy.nditer has to be asked.
bool plan_sums(SumPlan& plan, nb::handle summands, nb::handle sums, nb::handle axes);

/// Visits the summands in order, each with the place of its sum: `body(summand, place)`.
template <class Body>
void for_each_sum(const SumPlan& plan, Py_ssize_t size, Body&& body) {
    auto** in = static_cast<PyObject**>(plan.in->buf);
    Py_ssize_t at[kMaxAxes] = {}, place = 0;
    for (Py_ssize_t k = 0; k < size; ++k) {
        body(in[k], place);
        for (int axis = plan.ndim - 1; axis >= 0; --axis) {
            place += plan.step[axis];
            if (++at[axis] < plan.shape[axis]) break;
            place -= plan.step[axis] * plan.shape[axis];
            at[axis] = 0;
        }
    }
}

constexpr WalkFlags kSumFlags = {
    flag::buffered | flag::reduce_ok | flag::zerosize_ok, {flag::readwrite, flag::readwrite}, "OO"};
nb::object sum_op_axes(nb::handle axes);

}  // namespace detail

template <class Body>
void walk_sums(nb::handle summands, nb::handle sums, nb::handle axes, Body&& body) {
    detail::SumPlan plan;
    if (!detail::plan_sums(plan, summands, sums, axes)) {
        walk<2>(
            detail::kSumFlags, {summands, sums},
            [&](const auto& chunks, Py_ssize_t k) { body(chunks[0][k], chunks[1][k]); },
            detail::sum_op_axes(axes));
        return;
    }
    auto** out = static_cast<PyObject**>(plan.out->buf);
    detail::for_each_sum(plan, plan.in->len / plan.in->itemsize,
                         [&](PyObject* summand, Py_ssize_t place) { body(summand, out[place]); });
}

}  // namespace taviropy
