// np.vectorize with a native function.
#pragma once

#include <nanobind/nanobind.h>

#include <array>
#include <cstddef>

#include "support/imports.hpp"
#include "support/object_arrays.hpp"

namespace taviropy {

namespace detail {

/// Flags of a pass that reads N object arrays and writes one.
template <std::size_t N>
inline constexpr WalkFlags kMapFlags = {
    flag::buffered | flag::zerosize_ok,
    {flag::readonly, N == 1 ? flag::writeonly : flag::readonly, flag::writeonly}};

/// An object array of the shape to which the operands broadcast, laid out as NumPy's own
/// element-wise operations lay out their results.
nb::object empty_result(nb::handle np, const nb::handle* operands, std::size_t count);

}  // namespace detail

/// Refuses an array without elements as np.vectorize does where it is given no output type.
void refuse_empty(nb::handle array);

/// np.vectorize(body, otypes=[object])(*operands), for a native `body` of so many `nb::handle` that
/// gives an `nb::object`: the same values, shapes, memory layouts and errors. No garbage is
/// collected meanwhile.
template <class Body, class... Operands>
nb::object vectorize(nb::handle np, Body&& body, const Operands&... operands) {
    constexpr std::size_t N = sizeof...(Operands);
    GcPause pause;
    nb::object ndarray = np.attr("ndarray"), object_type = np.attr("object_");
    std::array<nb::object, N> arrays = {np.attr("asanyarray")(operands, object_type)...};
    std::array<nb::handle, N + 1> all;
    bool plain = true;
    for (std::size_t k = 0; k < N; ++k) {
        all[k] = arrays[k];
        plain = plain && arrays[k].type().is(ndarray);
    }
    if (!plain) {  // subclasses decide on what their results are
        nb::object function = nb::cpp_function([&body](nb::args args) -> nb::object {
            if constexpr (N == 1)
                return body(nb::object(args[0]));
            else
                return body(nb::object(args[0]), nb::object(args[1]));
        });
        nb::object vectorized =
            np.attr("vectorize")(function, nb::arg("otypes") = nb::make_tuple(object_type));
        if constexpr (N == 1)
            return vectorized(arrays[0]);
        else
            return vectorized(arrays[0], arrays[1]);
    }
    nb::object result = detail::empty_result(np, all.data(), N);
    all[N] = result;
    walk<N + 1>(detail::kMapFlags<N>, all, [&](const auto& chunks, Py_ssize_t k) {
        nb::object first = chunks[0].element(k);
        if constexpr (N == 1)
            chunks[1].store(k, body(first));
        else
            chunks[2].store(k, body(first, chunks[1].element(k)));
    });
    return result;
}

}  // namespace taviropy
