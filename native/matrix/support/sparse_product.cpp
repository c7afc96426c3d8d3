// Products of a matrix of a user with a csr matrix of ours.

#include <cmath>
#include <vector>

#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/operators.hpp"
#include "support/sparse.hpp"
#include "support/sparse_arrays.hpp"
#include "support/sparse_kernels.hpp"

namespace taviropy::sparse {

namespace {

/// A csr matrix that grows row by row.
template <class I>
struct GrowingCsr {
    std::vector<I> indptr{0}, indices;
    std::vector<double> data;

    void append(I index, double value) {
        indices.push_back(index);
        data.push_back(value);
    }
    void end_row() { indptr.push_back(static_cast<I>(indices.size())); }
    nb::object matrix(nb::handle np, nb::handle sp, Py_ssize_t rows, Py_ssize_t cols) const {
        const auto nnz = static_cast<Py_ssize_t>(indices.size());
        CsrArrays<I> made(np, rows, nnz);
        copy_values(indptr.data(), rows + 1, made.indptr.begin());
        copy_values(indices.data(), nnz, made.indices.begin());
        copy_values(data.data(), nnz, made.data.begin());
        return new_csr(sp, std::move(made), rows, cols);
    }
};

bool all_finite(const double* values, Py_ssize_t size) {
    bool finite = true;
    for (Py_ssize_t k = 0; k < size; ++k) finite &= std::isfinite(values[k]);
    return finite;
}

/// The sums of one row of a product, and which of them have been met.
template <class I>
struct RowSums {
    std::vector<double> sums;
    std::vector<char> met;
    std::vector<I> columns;

    explicit RowSums(Py_ssize_t cols)
        : sums(static_cast<std::size_t>(cols), 0.0), met(static_cast<std::size_t>(cols), 0) {}
    void add(I column, double value) {
        const auto place = static_cast<std::size_t>(column);
        if (!met[place]) {
            met[place] = 1;
            columns.push_back(column);
        }
        sums[place] += value;
    }
    /// Moves what isn't zero to the result, by rising column.
    void move_to(GrowingCsr<I>& result) {
        std::sort(columns.begin(), columns.end());
        for (I column : columns) {
            const auto place = static_cast<std::size_t>(column);
            if (sums[place] != 0.0) result.append(column, sums[place]);
            sums[place] = 0.0;
            met[place] = 0;
        }
        columns.clear();
        result.end_row();
    }
};

/// SciPy's product is dense and then compressed, so that sums of zero are dropped; each sum runs
/// over rising rows of the right matrix.
template <class I, class In>
nb::object dense_product(nb::handle np, nb::handle sp, const Dense& left, Compressed& right) {
    const double* values = right.data.doubles();
    const In *indptr = right.indptr.as<In>(), *indices = right.indices.as<In>();
    const bool skip_zeros = all_finite(values, right.nnz);
    GrowingCsr<I> result;
    RowSums<I> row(right.minor);
    for (Py_ssize_t i = 0; i < left.rows; ++i) {
        for (Py_ssize_t j = 0; j < right.major; ++j) {
            const double factor = left.at(i, j);
            if (factor == 0.0 && skip_zeros) continue;
            for (In k = indptr[j]; k < indptr[j + 1]; ++k)
                row.add(static_cast<I>(indices[k]), values[k] * factor);
        }
        row.move_to(result);
    }
    return result.matrix(np, sp, left.rows, right.minor);
}

/// A chain of the columns met in a row, the last one first, which is the order in which SciPy
/// stores the row of a product.
template <class I>
struct Chain {
    std::vector<double> sums;
    std::vector<I> next;
    I head = -2;

    explicit Chain(Py_ssize_t cols)
        : sums(static_cast<std::size_t>(cols), 0.0), next(static_cast<std::size_t>(cols), I(-1)) {}
    void add(I column, double value) {
        const auto place = static_cast<std::size_t>(column);
        sums[place] += value;
        if (next[place] != -1) return;
        next[place] = head;
        head = column;
    }
    void move_to(GrowingCsr<I>& result) {
        while (head != -2) {
            const auto place = static_cast<std::size_t>(head);
            if (sums[place] != 0.0) result.append(head, sums[place]);
            head = next[place];
            next[place] = -1;
            sums[place] = 0.0;
        }
        result.end_row();
    }
};

template <class I, class In>
nb::object csr_product(nb::handle np, nb::handle sp, Compressed& left, Compressed& right) {
    const double *factors = left.data.doubles(), *values = right.data.doubles();
    const In *indptr = right.indptr.as<In>(), *indices = right.indices.as<In>();
    GrowingCsr<I> result;
    Chain<I> row(right.minor);
    for (Py_ssize_t i = 0; i < left.major; ++i) {
        for (Py_ssize_t n = left.indptr[i]; n < left.indptr[i + 1]; ++n) {
            const Py_ssize_t j = left.indices[n];
            for (In k = indptr[j]; k < indptr[j + 1]; ++k)
                row.add(static_cast<I>(indices[k]), factors[n] * values[k]);
        }
        row.move_to(result);
    }
    return result.matrix(np, sp, left.major, right.minor);
}

/// More entries than this may come out; enough to choose the width of the indices.
bool may_be_wide(Py_ssize_t rows, Py_ssize_t cols) {
    return needs_wide({rows, cols}) ||
           (cols > 0 && rows > std::numeric_limits<std::int32_t>::max() / cols);
}

nb::object scipy_product(nb::handle left, nb::handle right) {
    nb::object sound_left = sound(left), sound_right = sound(right);
    return to_csr(matrix_product(sound_left, sound_right), false);
}

}  // namespace

nb::object product(nb::handle left, nb::handle right) {
    auto np = import_numpy();
    auto sp = import_sparse();
    const Kind kind = kind_of(left.ptr());
    if (kind_of(right.ptr()).format != Format::csr) return scipy_product(left, right);
    Compressed c(right.ptr(), "csr");
    if (Dense dense; dense.acquire(np, left) && dense.cols == c.major && c.data.is_double()) {
        if (may_be_wide(dense.rows, c.minor)) return scipy_product(left, right);
        return with_index(c.wide(), [&](auto in) {
            return dense_product<std::int32_t, decltype(in)>(np, sp, dense, c);
        });
    }
    if (kind.format == Format::csr && c.data.is_double()) {
        Compressed factor(left.ptr(), "csr");
        c.check(right.ptr());  // once more: the left matrix may have run code of the user
        const bool wide = may_be_wide(factor.major, c.minor) || factor.wide() || c.wide();
        if (!wide && factor.data.is_real() && factor.minor == c.major)
            return csr_product<std::int32_t, std::int32_t>(np, sp, factor, c);
    }
    return scipy_product(left, right);
}

}  // namespace taviropy::sparse
