// Matrices of a user, or our own, as csr and coo matrices of float64.

#include <cstring>
#include <numeric>

#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"
#include "support/numbers.hpp"
#include "support/sparse.hpp"
#include "support/sparse_arrays.hpp"
#include "support/sparse_kernels.hpp"

namespace taviropy::sparse {

using namespace nb::literals;

nb::object sound(nb::handle A) { return nb::steal(sound(A.ptr()).release()); }

void check(nb::handle A) { sound(A.ptr()); }

namespace {

/// Whether SciPy gives new arrays of this content int64. The `matrix` classes look at the values,
/// which fit wherever the extents do; the `array` classes stay with the type that they find.
bool stays_wide(const Kind& kind, bool wide, std::initializer_list<Py_ssize_t> values) {
    return needs_wide(values) || (kind.is_array && wide);
}

template <class To>
void copy_indices(const IndexArray& from, Py_ssize_t size, To* to) {
    with_index(from.wide(), [&](auto index) { copy_values(from.as<decltype(index)>(), size, to); });
}

/// The first `size` indices, of the given width: the very array where it may be shared and fits.
nb::object index_array(nb::handle np, const IndexArray& from, Py_ssize_t size, bool wide,
                       bool copy) {
    if (from.is_given() && from.wide() == wide && from.size() == size)
        return copy ? nb::handle(from.array()).attr("copy")() : nb::borrow(from.array());
    return with_index(wide, [&](auto index) {
        Fresh<decltype(index)> to(np, size);
        copy_indices(from, size, to.begin());
        return to.take();
    });
}

/// The first `size` values as float64, likewise.
nb::object data_array(nb::handle np, DataArray& from, Py_ssize_t size, bool copy) {
    if (from.is_double() && from.length() == size)
        return copy ? nb::handle(from.array()).attr("copy")() : nb::borrow(from.array());
    const double* values = from.doubles();
    Fresh<double> to(np, size);
    copy_values(values, size, to.begin());
    return to.take();
}

// ---- To csr ------------------------------------------------------------------------------------

nb::object shared_csr(nb::handle np, nb::handle sp, Compressed& c) {
    return new_csr(sp, data_array(np, c.data, c.nnz, false), c.indices.array(), c.indptr.array(),
                   c.major, c.minor);
}

/// Whether the arrays of a copy are int64.
bool copies_wide(const Kind& kind, const Compressed& c) {
    const bool empty = c.major == 0 || c.minor == 0;
    return stays_wide(kind, c.wide(), {c.nnz, empty ? 0 : c.major, empty ? 0 : c.minor});
}

nb::object copied_csr(nb::handle np, nb::handle sp, const Kind& kind, Compressed& c) {
    const bool wide = copies_wide(kind, c);
    return new_csr(sp, data_array(np, c.data, c.nnz, true),
                   index_array(np, c.indices, c.nnz, wide, true),
                   index_array(np, c.indptr, c.major + 1, wide, true), c.major, c.minor);
}

/// A copy with one row for each `major` index, sorted.
nb::object sorted_csr(nb::handle np, nb::handle sp, const Kind& kind, Compressed& c) {
    const double* values = c.data.doubles();
    return with_index(copies_wide(kind, c), [&](auto index) {
        CsrArrays<decltype(index)> made(np, c.major, c.nnz);
        copy_indices(c.indptr, c.major + 1, made.indptr.begin());
        copy_indices(c.indices, c.nnz, made.indices.begin());
        copy_values(values, c.nnz, made.data.begin());
        if (order_of(c.major, made.indptr.begin(), made.indices.begin()) == Order::unsorted)
            sort_rows(c.major, made.indptr.begin(), made.indices.begin(), made.data.begin());
        return new_csr(sp, std::move(made), c.major, c.minor);
    });
}

/// The matrix of the other orientation: `c.minor` rows, each sorted.
nb::object csr_from_transpose(nb::handle np, nb::handle sp, const Kind& kind, Compressed& c) {
    const double* values = c.data.doubles();
    const bool wide = stays_wide(kind, c.wide(), {c.nnz, c.major, c.minor});
    return with_index(wide, [&](auto out) {
        CsrArrays<decltype(out)> made(np, c.minor, c.nnz);
        with_index(c.wide(), [&](auto in) {
            using In = decltype(in);
            transpose(c.major, c.minor, c.indptr.as<In>(), c.indices.as<In>(), values,
                      made.indptr.begin(), made.indices.begin(), made.data.begin());
        });
        return new_csr(sp, std::move(made), c.minor, c.major);
    });
}

/// `transposed` swaps rows and columns on the way. An invalid object where the numbers aren't real,
/// and where SciPy has to add up duplicates, in the arithmetic of another dtype.
nb::object csr_from_coo(nb::handle np, nb::handle sp, nb::handle A, const Kind& kind,
                        bool transposed) {
    const bool canonical = !transposed && truth(A.attr("has_canonical_format"));
    Triplets t(A.ptr());
    if (!t.data.is_real()) return nb::object();
    const IndexArray &row = transposed ? t.col : t.row, &col = transposed ? t.row : t.col;
    const Py_ssize_t rows = transposed ? t.cols : t.rows, cols = transposed ? t.rows : t.cols;
    const bool is_double = t.data.is_double();
    const bool wide =
        t.nnz > 0 ? stays_wide(kind, t.wide(), {t.nnz, rows, cols}) : needs_wide({rows, cols});
    const double* values = t.data.doubles();
    return with_index(wide, [&](auto out) -> nb::object {
        CsrArrays<decltype(out)> made(np, rows, t.nnz);
        with_index(t.wide(), [&](auto in) {
            const auto *r = row.as<decltype(in)>(), *c = col.as<decltype(in)>();
            distribute(
                rows, t.nnz, [r](Py_ssize_t k) { return r[k]; }, [c](Py_ssize_t k) { return c[k]; },
                values, made.indptr.begin(), made.indices.begin(), made.data.begin());
        });
        if (canonical) return new_csr(sp, std::move(made), rows, cols);
        if (!is_double &&
            order_of(rows, made.indptr.begin(), made.indices.begin()) != Order::rising)
            return nb::object();
        return canonical_csr(np, sp, std::move(made), rows, cols);
    });
}

/// The rows of an array without a zero, each of its columns one after the other.
template <class I>
CsrArrays<I> copied_rows(nb::handle np, const Dense& dense) {
    CsrArrays<I> made(np, dense.rows, dense.rows * dense.cols);
    for (Py_ssize_t i = 0; i < dense.rows; ++i) {
        copy_values(&dense.at(i, 0), dense.cols, made.data.begin() + i * dense.cols);
        I* indices = made.indices.begin() + i * dense.cols;
        std::iota(indices, indices + dense.cols, I(0));
        made.indptr[i] = static_cast<I>(i * dense.cols);
    }
    made.indptr[dense.rows] = static_cast<I>(dense.rows * dense.cols);
    return made;
}

template <class I>
CsrArrays<I> compressed(nb::handle np, const Dense& dense, Py_ssize_t nnz) {
    if (nnz > 0 && nnz == dense.rows * dense.cols && dense.has_whole_rows())
        return copied_rows<I>(np, dense);
    CsrArrays<I> made(np, dense.rows, nnz);
    I k = 0;
    made.indptr[0] = 0;
    for (Py_ssize_t i = 0; i < dense.rows; ++i) {
        for (Py_ssize_t j = 0; j < dense.cols; ++j) {
            const double value = dense.at(i, j);
            if (value == 0.0) continue;
            made.indices[k] = static_cast<I>(j);
            made.data[k++] = value;
        }
        made.indptr[i + 1] = k;
    }
    return made;
}

nb::object csr_from_dense(nb::handle np, nb::handle sp, const Dense& dense, bool transposed) {
    const Py_ssize_t nnz = dense.count_nonzero();
    return with_index(needs_wide({nnz, dense.rows, dense.cols}), [&](auto index) {
        using I = decltype(index);
        CsrArrays<I> made = compressed<I>(np, dense, nnz);
        if (!transposed) return new_csr(sp, std::move(made), dense.rows, dense.cols);
        CsrArrays<I> turned(np, dense.cols, nnz);
        transpose(dense.rows, dense.cols, made.indptr.begin(), made.indices.begin(),
                  made.data.begin(), turned.indptr.begin(), turned.indices.begin(),
                  turned.data.begin());
        return new_csr(sp, std::move(turned), dense.cols, dense.rows);
    });
}

// ---- To coo ------------------------------------------------------------------------------------

/// The major index of every entry.
nb::object expanded(nb::handle np, const Compressed& c, bool wide) {
    return with_index(wide, [&](auto index) {
        Fresh<decltype(index)> major(np, c.nnz);
        for (Py_ssize_t i = 0; i < c.major; ++i)
            std::fill(major.begin() + c.indptr[i], major.begin() + c.indptr[i + 1],
                      static_cast<decltype(index)>(i));
        return major.take();
    });
}

nb::object coo_from_compressed(nb::handle np, nb::handle sp, const Kind& kind, Compressed& c,
                               bool copy) {
    const bool wide = stays_wide(kind, c.wide(), {c.major, c.minor});
    nb::object major = expanded(np, c, wide);
    nb::object minor = index_array(np, c.indices, c.nnz, wide, copy);
    nb::object data = data_array(np, c.data, c.nnz, copy);
    if (kind.format == Format::csr) return new_coo(sp, data, major, minor, c.major, c.minor);
    return new_coo(sp, data, minor, major, c.minor, c.major);
}

nb::object coo_from_coo(nb::handle np, nb::handle sp, nb::handle A, Triplets& t, bool copy) {
    const bool wide = t.wide() || needs_wide({t.rows, t.cols});
    const bool canonical = copy && truth(A.attr("has_canonical_format"));
    return new_coo(sp, data_array(np, t.data, t.nnz, copy),
                   index_array(np, t.row, t.nnz, wide, copy),
                   index_array(np, t.col, t.nnz, wide, copy), t.rows, t.cols, canonical);
}

nb::object coo_from_dense(nb::handle np, nb::handle sp, const Dense& dense) {
    const Py_ssize_t nnz = dense.count_nonzero();
    return with_index(needs_wide({dense.rows, dense.cols}), [&](auto index) {
        using I = decltype(index);
        Fresh<double> data(np, nnz);
        Fresh<I> row(np, nnz), col(np, nnz);
        Py_ssize_t k = 0;
        for (Py_ssize_t i = 0; i < dense.rows; ++i) {
            for (Py_ssize_t j = 0; j < dense.cols; ++j) {
                if (dense.at(i, j) == 0.0) continue;
                row[k] = static_cast<I>(i);
                col[k] = static_cast<I>(j);
                data[k++] = dense.at(i, j);
            }
        }
        return new_coo(sp, data.take(), row.take(), col.take(), dense.rows, dense.cols, true);
    });
}

/// Whether the entries are objects in an array, whose conversion runs code of theirs.
bool holds_objects(nb::handle A) {
    nb::object data = nb::getattr(A, "data", nb::none());
    nb::object dtype = nb::getattr(data, "dtype", nb::none());
    return !dtype.is_none() && text_of(dtype.attr("kind")) == "O" && nb::hasattr(A, "astype");
}

/// What SciPy makes of a matrix that isn't of a layout known here.
nb::object converted(nb::handle np, nb::handle type, nb::handle A, bool copy) {
    refuse_complex(A);
    nb::object checked_matrix = sound(A), float64 = np.attr("float64");
    // Objects become numbers first, and the matrix is looked at again, before SciPy walks it.
    if (is_sparse(import_sparse(), A) && holds_objects(A) &&
        text_of(A.attr("format")) != std::string("lil"))
        checked_matrix = sound(checked_matrix.attr("astype")(float64));
    return type(checked_matrix, "dtype"_a = float64, "copy"_a = copy);
}

}  // namespace

nb::object to_csr(nb::handle A, bool copy) {
    auto np = import_numpy();
    auto sp = import_sparse();
    Kind kind = kind_of(A.ptr());
    if (kind.format == Format::csr) {
        Compressed c(A.ptr(), "csr");
        if (c.data.is_real() && copy) return copied_csr(np, sp, kind, c);
        if (c.data.is_real() && !c.has_spare()) return shared_csr(np, sp, c);
    } else if (kind.format == Format::csc) {
        Compressed c(A.ptr(), "csc");
        if (c.data.is_real()) return csr_from_transpose(np, sp, kind, c);
    } else if (kind.format == Format::coo && nb::len(nb::object(A.attr("shape"))) == 2) {
        nb::object made = csr_from_coo(np, sp, A, kind, false);
        if (made.is_valid()) return made;
    } else if (Dense dense; dense.acquire(np, A)) {
        return csr_from_dense(np, sp, dense, false);
    }
    return converted(np, sp.attr("csr_matrix"), A, copy);
}

nb::object transposed_to_csr(nb::handle A) {
    auto np = import_numpy();
    auto sp = import_sparse();
    Kind kind = kind_of(A.ptr());
    if (kind.format == Format::csr) {
        Compressed c(A.ptr(), "csr");
        if (c.data.is_real()) return csr_from_transpose(np, sp, kind, c);
    } else if (kind.format == Format::csc) {
        Compressed c(A.ptr(), "csc");
        if (c.data.is_real()) return sorted_csr(np, sp, kind, c);
    } else if (kind.format == Format::coo) {
        nb::object made = csr_from_coo(np, sp, A, kind, true);
        if (made.is_valid()) return made;
    } else if (Dense dense; dense.acquire(np, A)) {
        return csr_from_dense(np, sp, dense, dense.view->ndim == 2);
    }
    nb::object result = to_csr(sound(A).attr("T"), true);
    check(result);
    result.attr("sort_indices")();
    return result;
}

nb::object to_coo(nb::handle A, bool copy) {
    auto np = import_numpy();
    auto sp = import_sparse();
    Kind kind = kind_of(A.ptr());
    if (kind.format == Format::csr || kind.format == Format::csc) {
        Compressed c(A.ptr(), kind.format == Format::csr ? "csr" : "csc");
        if (c.data.is_real()) return coo_from_compressed(np, sp, kind, c, copy);
    } else if (kind.format == Format::coo) {
        Triplets t(A.ptr());
        if (t.data.is_real()) return coo_from_coo(np, sp, A, t, copy);
    } else if (Dense dense; dense.acquire(np, A)) {
        return coo_from_dense(np, sp, dense);
    }
    return converted(np, sp.attr("coo_matrix"), A, copy);
}

nb::object copy(nb::handle A) {
    auto sp = import_sparse();
    Kind kind = kind_of(A.ptr());
    if (kind.format == Format::coo) return to_coo(A, true);
    if (kind.format != Format::csr) return A.attr("copy")();
    nb::object data = A.attr("data"), indices = A.attr("indices"), indptr = A.attr("indptr");
    nb::object shape = A.attr("shape"), narrow = nb::int_(4);
    // Wide indices are narrowed where they fit. Copies of arrays need no look at what they hold.
    if (!indices.attr("itemsize").equal(narrow) || !indptr.attr("itemsize").equal(narrow))
        return to_csr(A, true);
    return new_csr(sp, data.attr("copy")(), indices.attr("copy")(), indptr.attr("copy")(),
                   nb::cast<Py_ssize_t>(nb::object(shape[0])),
                   nb::cast<Py_ssize_t>(nb::object(shape[1])));
}

nb::object to_array(nb::handle A) { return sound(A).attr("toarray")(); }

}  // namespace taviropy::sparse
