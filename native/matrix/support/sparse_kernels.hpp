// Passes over the arrays of csr matrices, templates over the index types.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/sparse_arrays.hpp"

namespace taviropy::sparse {

template <class From, class To>
void copy_values(const From* from, Py_ssize_t size, To* to) {
    if constexpr (std::is_same_v<From, To>) {
        if (size > 0) std::memcpy(to, from, static_cast<std::size_t>(size) * sizeof(To));
    } else {
        std::transform(from, from + size, to, [](From value) { return static_cast<To>(value); });
    }
}

/// Turns counts, at place k + 1 that of row k, into the ends of the rows.
template <class I>
void accumulate(I* indptr, std::ptrdiff_t rows) {
    for (std::ptrdiff_t k = 0; k < rows; ++k) indptr[k + 1] += indptr[k];
}

/// Distributes entries to rows, keeping their order within a row: `row(k)` and `col(k)` of entry k.
template <class I, class Row, class Col>
void distribute(std::ptrdiff_t rows, std::ptrdiff_t nnz, Row&& row, Col&& col, const double* values,
                I* indptr, I* indices, double* data) {
    std::fill(indptr, indptr + rows + 1, I(0));
    for (std::ptrdiff_t k = 0; k < nnz; ++k) ++indptr[row(k) + 1];
    accumulate(indptr, rows);
    // Each row's start runs to its end, which is the start of the next.
    for (std::ptrdiff_t k = 0; k < nnz; ++k) {
        I place = indptr[row(k)]++;
        indices[place] = static_cast<I>(col(k));
        data[place] = values[k];
    }
    for (std::ptrdiff_t k = rows; k > 0; --k) indptr[k] = indptr[k - 1];
    indptr[0] = 0;
}

/// The transpose of a compressed matrix with `major` rows, as one with `minor` rows.
template <class In, class Out>
void transpose(std::ptrdiff_t major, std::ptrdiff_t minor, const In* in_indptr,
               const In* in_indices, const double* values, Out* indptr, Out* indices,
               double* data) {
    std::fill(indptr, indptr + minor + 1, Out(0));
    const auto nnz = static_cast<std::ptrdiff_t>(in_indptr[major]);
    for (std::ptrdiff_t k = 0; k < nnz; ++k) ++indptr[in_indices[k] + 1];
    accumulate(indptr, minor);
    for (std::ptrdiff_t i = 0; i < major; ++i) {
        for (auto k = in_indptr[i]; k < in_indptr[i + 1]; ++k) {
            Out place = indptr[in_indices[k]]++;
            indices[place] = static_cast<Out>(i);
            data[place] = values[k];
        }
    }
    for (std::ptrdiff_t k = minor; k > 0; --k) indptr[k] = indptr[k - 1];
    indptr[0] = 0;
}

/// How the entries of the rows are ordered.
enum class Order { rising, repeated, unsorted };  // `repeated`: sorted, with equal indices

template <class I>
Order order_of(std::ptrdiff_t rows, const I* indptr, const I* indices) {
    Order order = Order::rising;
    for (std::ptrdiff_t i = 0; i < rows; ++i) {
        for (I k = indptr[i] + 1; k < indptr[i + 1]; ++k) {
            if (indices[k] < indices[k - 1]) return Order::unsorted;
            if (indices[k] == indices[k - 1]) order = Order::repeated;
        }
    }
    return order;
}

/// Sorts each row by index. Equal indices end up in the order in which std::sort leaves them, which
/// is how SciPy orders them, so that their sums come out the same to the last bit.
template <class I>
void sort_rows(std::ptrdiff_t rows, const I* indptr, I* indices, double* data) {
    std::vector<std::pair<I, double>> row;
    for (std::ptrdiff_t i = 0; i < rows; ++i) {
        row.clear();
        for (I k = indptr[i]; k < indptr[i + 1]; ++k) row.emplace_back(indices[k], data[k]);
        std::sort(row.begin(), row.end(),
                  [](const auto& a, const auto& b) { return a.first < b.first; });
        for (I k = indptr[i], n = 0; k < indptr[i + 1]; ++k, ++n)
            std::tie(indices[k], data[k]) = row[static_cast<std::size_t>(n)];
    }
}

/// Adds up equal neighbours in sorted rows, in place; gives the number of entries that are left.
template <class I>
I sum_repeated(std::ptrdiff_t rows, I* indptr, I* indices, double* data) {
    I kept = 0, end = 0;
    for (std::ptrdiff_t i = 0; i < rows; ++i) {
        I k = end;
        end = indptr[i + 1];
        while (k < end) {
            const I index = indices[k];
            double sum = data[k++];
            while (k < end && indices[k] == index) sum += data[k++];
            indices[kept] = index;
            data[kept++] = sum;
        }
        indptr[i + 1] = kept;
    }
    return kept;
}

/// Sorted, with duplicates added up, as SciPy's conversion from coo leaves a matrix.
template <class I>
nb::object canonical_csr(nb::handle np, nb::handle sp, CsrArrays<I>&& made, Py_ssize_t rows,
                         Py_ssize_t cols) {
    Order order = order_of(rows, made.indptr.begin(), made.indices.begin());
    if (order == Order::rising) return new_csr(sp, std::move(made), rows, cols);
    if (order == Order::unsorted)
        sort_rows(rows, made.indptr.begin(), made.indices.begin(), made.data.begin());
    Py_ssize_t nnz =
        sum_repeated(rows, made.indptr.begin(), made.indices.begin(), made.data.begin());
    if (nnz == made.data.size()) return new_csr(sp, std::move(made), rows, cols);
    CsrArrays<I> shorter(np, rows, nnz);
    copy_values(made.indptr.begin(), rows + 1, shorter.indptr.begin());
    copy_values(made.indices.begin(), nnz, shorter.indices.begin());
    copy_values(made.data.begin(), nnz, shorter.data.begin());
    return new_csr(sp, std::move(shorter), rows, cols);
}

}  // namespace taviropy::sparse
