// Matrices of the compact forms, made from scratch or from matrices of ours.

#include <cmath>
#include <deque>
#include <numeric>

#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/sparse.hpp"
#include "support/sparse_arrays.hpp"
#include "support/sparse_kernels.hpp"

namespace taviropy::sparse {

using namespace nb::literals;

namespace {

nb::object diagonal(Py_ssize_t n, double value) {
    auto np = import_numpy();
    auto sp = import_sparse();
    return with_index(needs_wide({n}), [&](auto index) {
        CsrArrays<decltype(index)> made(np, n, n);
        std::iota(made.indptr.begin(), made.indptr.begin() + n + 1, decltype(index)(0));
        std::iota(made.indices.begin(), made.indices.begin() + n, decltype(index)(0));
        std::fill(made.data.begin(), made.data.begin() + n, value);
        return new_csr(sp, std::move(made), n, n);
    });
}

nb::object empty_csr(Py_ssize_t rows, Py_ssize_t cols) {
    auto np = import_numpy();
    return with_index(needs_wide({rows, cols}), [&](auto index) {
        CsrArrays<decltype(index)> made(np, rows, 0);
        std::fill(made.indptr.begin(), made.indptr.begin() + rows + 1, decltype(index)(0));
        return new_csr(import_sparse(), std::move(made), rows, cols);
    });
}

/// One matrix of a stack, or its single row, which then stands in every row of the result.
struct Block {
    Compressed c;
    bool repeated;
    std::vector<Py_ssize_t> columns;  ///< of a repeated row
    std::vector<double> values;

    explicit Block(const Beside& part)
        : c(part.A.ptr(), "csr", Compressed::Later()), repeated(part.repeated) {}
    /// Finds the matrix sound, when all of a stack are viewed.
    void check(const Beside& part) {
        c.check(part.A.ptr());
        if (repeated) take_row(c.data.doubles());
    }
    void check_rows(Py_ssize_t rows) const {
        if (c.major != (repeated ? 1 : rows))
            raise(PyExc_ValueError, "cannot stack a matrix of " + std::to_string(c.major) +
                                        " rows where " + std::to_string(repeated ? 1 : rows) +
                                        " are expected");
    }
    Py_ssize_t entries(Py_ssize_t rows) const {
        return repeated ? rows * static_cast<Py_ssize_t>(columns.size()) : c.nnz;
    }

  private:
    /// kron repeats a row that is at least half full as a dense block, zeros included.
    void take_row(const double* data) {
        if (c.nnz > 0 && 2 * c.nnz >= c.minor) {
            columns.resize(static_cast<std::size_t>(c.minor));
            std::iota(columns.begin(), columns.end(), Py_ssize_t(0));
            values.assign(static_cast<std::size_t>(c.minor), 0.0);
            for (Py_ssize_t k = 0; k < c.nnz; ++k)
                values[static_cast<std::size_t>(c.indices[k])] += data[k];
            return;
        }
        values.assign(data, data + c.nnz);
        for (Py_ssize_t k = 0; k < c.nnz; ++k) columns.push_back(c.indices[k]);
    }
};

/// Writes row `i` of a block at place `k` of the result.
template <class I>
void write_row(const Block& block, const double* values, Py_ssize_t i, Py_ssize_t shift,
               CsrArrays<I>& made, Py_ssize_t& k) {
    if (block.repeated) {
        for (std::size_t j = 0; j < block.columns.size(); ++j, ++k) {
            made.indices[k] = static_cast<I>(block.columns[j] + shift);
            made.data[k] = block.values[j];
        }
        return;
    }
    with_index(block.c.wide(), [&](auto in) {
        using In = decltype(in);
        const In* indptr = block.c.indptr.as<In>();
        const In* indices = block.c.indices.as<In>() + indptr[i];
        const auto count = static_cast<Py_ssize_t>(indptr[i + 1] - indptr[i]);
        I* shifted = made.indices.begin() + k;
        for (Py_ssize_t j = 0; j < count; ++j) shifted[j] = static_cast<I>(indices[j] + shift);
        std::copy_n(values + indptr[i], count, made.data.begin() + k);
        k += count;
    });
}

/// A stack of one matrix: its copy.
nb::object stack_of_one(nb::handle np, nb::handle sp, Compressed& c) {
    return with_index(needs_wide({c.nnz, c.major, c.minor}), [&](auto index) {
        CsrArrays<decltype(index)> made(np, c.major, c.nnz);
        copy_values(c.data.doubles(), c.nnz, made.data.begin());
        with_index(c.wide(), [&](auto in) {
            using In = decltype(in);
            copy_values(c.indices.as<In>(), c.nnz, made.indices.begin());
            copy_values(c.indptr.as<In>(), c.major + 1, made.indptr.begin());
        });
        return new_csr(sp, std::move(made), c.major, c.minor);
    });
}

nb::object stack(nb::handle np, nb::handle sp, std::deque<Block>& blocks, Py_ssize_t rows) {
    if (blocks.size() == 1 && !blocks[0].repeated) return stack_of_one(np, sp, blocks[0].c);
    Py_ssize_t cols = 0, nnz = 0;
    std::vector<const double*> values;
    bool repeated = false;
    for (Block& block : blocks) {
        cols += block.c.minor;
        nnz += block.entries(rows);
        repeated = repeated || block.repeated;
        values.push_back(block.c.data.doubles());
    }
    return with_index(needs_wide({nnz, rows, cols}), [&](auto index) {
        using I = decltype(index);
        CsrArrays<I> made(np, rows, nnz);
        Py_ssize_t k = 0;
        made.indptr[0] = 0;
        for (Py_ssize_t i = 0; i < rows; ++i) {
            Py_ssize_t shift = 0;
            for (std::size_t b = 0; b < blocks.size(); ++b) {
                write_row(blocks[b], values[b], i, shift, made, k);
                shift += blocks[b].c.minor;
            }
            made.indptr[i + 1] = static_cast<I>(k);
        }
        // What kron gives isn't csr, and then SciPy stacks by way of coo, which adds up duplicates.
        if (repeated) return canonical_csr(np, sp, std::move(made), rows, cols);
        return new_csr(sp, std::move(made), rows, cols);
    });
}

}  // namespace

nb::object identity(Py_ssize_t n) { return diagonal(n, 1.0); }

/// hstack((identity(n), identity(n)))
nb::object twin_identity(Py_ssize_t n) {
    auto np = import_numpy();
    auto sp = import_sparse();
    return with_index(needs_wide({2 * n}), [&](auto index) {
        using I = decltype(index);
        CsrArrays<I> made(np, n, 2 * n);
        for (Py_ssize_t i = 0; i < n; ++i) {
            made.indptr[i] = static_cast<I>(2 * i);
            made.indices[2 * i] = static_cast<I>(i);
            made.indices[2 * i + 1] = static_cast<I>(n + i);
        }
        made.indptr[n] = static_cast<I>(2 * n);
        std::fill(made.data.begin(), made.data.begin() + 2 * n, 1.0);
        return new_csr(sp, std::move(made), n, 2 * n);
    });
}

nb::object scaled_identity(Py_ssize_t n, double value) {
    return value == 0.0 ? empty_csr(n, n) : diagonal(n, value);
}

nb::object hstack(const std::vector<Beside>& matrices, Py_ssize_t rows) {
    auto np = import_numpy();
    auto sp = import_sparse();
    std::deque<Block> blocks;
    for (const Beside& matrix : matrices) blocks.emplace_back(matrix);
    for (std::size_t k = 0; k < matrices.size(); ++k) blocks[k].check(matrices[k]);
    if (!blocks.front().repeated) rows = blocks.front().c.major;
    for (const Block& block : blocks) block.check_rows(rows);
    return stack(np, sp, blocks, rows);
}

nb::object repeat_row(nb::handle A, Py_ssize_t rows) {
    return hstack({{nb::borrow(A), true}}, rows);
}

nb::object repeated_row(const double* row, Py_ssize_t size, Py_ssize_t rows) {
    auto np = import_numpy();
    const Py_ssize_t kept = size - std::count(row, row + size, 0.0);
    return with_index(needs_wide({rows * kept, rows, size}), [&](auto index) {
        using I = decltype(index);
        CsrArrays<I> made(np, rows, rows * kept);
        Py_ssize_t k = 0;
        made.indptr[0] = 0;
        for (Py_ssize_t i = 0; i < rows; ++i) {
            for (Py_ssize_t j = 0; j < size; ++j) {
                if (row[j] == 0.0) continue;
                made.indices[k] = static_cast<I>(j);
                made.data[k++] = row[j];
            }
            made.indptr[i + 1] = static_cast<I>(k);
        }
        return new_csr(import_sparse(), std::move(made), rows, size);
    });
}

/// An array of any shape as contiguous doubles, one axis. What keeps its axes, as a numpy.matrix
/// does, has a single row, which is no factor for the first row and leaves none for the others.
static nb::object flat_doubles(nb::handle np, nb::handle array, bool first_row_is_empty) {
    nb::object flat =
        np.attr("require")(array, "dtype"_a = nb::getattr(np, "float64")).attr("reshape")(-1);
    const auto ndim = nb::cast<int>(nb::object(flat.attr("ndim")));
    if (ndim != 1)
        raise(first_row_is_empty ? PyExc_IndexError : PyExc_ValueError,
              "the factors of the rows keep " + std::to_string(ndim) +
                  " axes when flattened, as a numpy.matrix does; convert them by numpy.asarray "
                  "first");
    return np.attr("ascontiguousarray")(flat);
}

void scale_rows(nb::handle A, nb::handle factors) {
    auto np = import_numpy();
    Compressed c(A.ptr(), "csr", Compressed::Later());
    ArrayBuffer data, scale;
    constexpr int flags = PyBUF_C_CONTIGUOUS | PyBUF_FORMAT;
    bool usable = factors.type().is(np.attr("ndarray")) && scale.acquire(factors, flags);
    if (!usable || !scale.holds('d')) {
        const bool first_row_is_empty = c.indptr.size() > 1 && c.indptr[1] == c.indptr[0];
        if (!scale.acquire(flat_doubles(np, factors, first_row_is_empty), flags))
            throw nb::python_error();
    }
    c.check(A.ptr());
    if (scale->len / scale->itemsize < c.major)
        raise(PyExc_IndexError, std::to_string(scale->len / scale->itemsize) + " factors for " +
                                    std::to_string(c.major) + " rows");
    if (!data.acquire(c.data.array(), PyBUF_C_CONTIGUOUS | PyBUF_FORMAT | PyBUF_WRITABLE) ||
        !data.holds('d'))
        raise(PyExc_ValueError, "the entries of the matrix are no writable array of float64");
    auto* values = static_cast<double*>(data->buf);
    const auto* factor = static_cast<const double*>(scale->buf);
    with_index(c.wide(), [&](auto index) {
        const auto* indptr = c.indptr.as<decltype(index)>();
        for (Py_ssize_t i = 0; i < c.major; ++i)
            for (auto k = indptr[i]; k < indptr[i + 1]; ++k) values[k] *= factor[i];
    });
}

nb::object kron(nb::handle left, nb::handle right) {
    auto np = import_numpy();
    auto sp = import_sparse();
    Dense number;
    if (!number.acquire(np, left) || number.rows != 1 || number.cols != 1 ||
        kind_of(right.ptr()).format != Format::csr) {
        nb::object product = sp.attr("kron")(sound(left), sound(right), "format"_a = "csr");
        return to_csr(product, false);
    }
    Compressed c(right.ptr(), "csr");
    const double factor = number.at(0, 0);
    if (factor == 0.0 || c.nnz == 0) return empty_csr(c.major, c.minor);
    const double* values = c.data.doubles();
    return with_index(needs_wide({c.nnz, c.major, c.minor}), [&](auto index) {
        CsrArrays<decltype(index)> made(np, c.major, c.nnz);
        for (Py_ssize_t i = 0; i <= c.major; ++i)
            made.indptr[i] = static_cast<decltype(index)>(c.indptr[i]);
        for (Py_ssize_t k = 0; k < c.nnz; ++k) {
            made.indices[k] = static_cast<decltype(index)>(c.indices[k]);
            made.data[k] = factor * values[k];
        }
        return canonical_csr(np, sp, std::move(made), c.major, c.minor);
    });
}

nb::object block_diag(nb::list matrices) {
    auto np = import_numpy();
    auto sp = import_sparse();
    std::deque<Triplets> blocks;
    Py_ssize_t rows = 0, cols = 0, nnz = 0;
    for (std::size_t k = 0; k < matrices.size(); ++k) {
        nb::object part = matrices[k];
        const Triplets& block = blocks.emplace_back(part.ptr());
        rows += block.rows;
        cols += block.cols;
        nnz += block.nnz;
    }
    return with_index(needs_wide({rows, cols}), [&](auto index) {
        using I = decltype(index);
        Fresh<double> data(np, nnz);
        Fresh<I> row(np, nnz), col(np, nnz);
        Py_ssize_t place = 0, row_shift = 0, col_shift = 0;
        for (Triplets& block : blocks) {
            copy_values(block.data.doubles(), block.nnz, data.begin() + place);
            for (Py_ssize_t k = 0; k < block.nnz; ++k, ++place) {
                row[place] = static_cast<I>(block.row[k] + row_shift);
                col[place] = static_cast<I>(block.col[k] + col_shift);
            }
            row_shift += block.rows;
            col_shift += block.cols;
        }
        return new_coo(sp, data.take(), row.take(), col.take(), rows, cols);
    });
}

}  // namespace taviropy::sparse
