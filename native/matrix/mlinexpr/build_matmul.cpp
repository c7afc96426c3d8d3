// Matrix times variables: the choice of the form, and the full form of dense and sparse products.

#include <vector>

#include "core_interface/scalars.hpp"
#include "mlinexpr/mlinexpr.hpp"
#include "support/imports.hpp"
#include "support/numbers.hpp"
#include "support/object_arrays.hpp"
#include "support/operators.hpp"
#include "support/sparse.hpp"
#include "support/sparse_views.hpp"

namespace taviropy::mlinexpr {

using namespace nb::literals;

// ---- The choice of the form -----------------------------------------------------------------

[[noreturn]] static void refuse_operand(nb::handle operand) {
    raise(PyExc_ValueError, "Cannot construct MLinExpr from " + text_of(operand));
}

/// A.shape, whatever goes wrong with it being the fault of the operand.
static nb::object shape_of_matrix(nb::handle A) {
    PyObject* shape = PyObject_GetAttrString(A.ptr(), "shape");
    if (!shape) {
        PyErr_Clear();
        refuse_operand(A);
    }
    return nb::steal(shape);
}

nb::object _from_matmul_right(nb::handle cls, nb::handle A, nb::handle x) {
    nb::object np = import_numpy(), sp = import_sparse();
    if (!is_a(x, names::MVar)) refuse_operand(x);
    nb::object shape_right = x.attr("shape"), shape_left = shape_of_matrix(A);
    nb::object shape_result = product_shape(shape_left, shape_right);
    if (has_zero(shape_result)) return zeros(cls, shape_result);
    if (keeps_compact(cls) && allows_compact(shape_result) && allows_compact(shape_right))
        return compact_product(cls, A, x, shape_right, Side::right, np.attr("zeros")(shape_result));
    if (is_ndarray(np, A)) return _from_matmul_right_ndarray(cls, A, x);
    if (is_sparse(sp, A)) return _from_matmul_right_spmatrix(cls, A, x);
    refuse_operand(A);
}

nb::object _from_matmul_left(nb::handle cls, nb::handle x, nb::handle A) {
    nb::object np = import_numpy(), sp = import_sparse();
    if (!is_a(x, names::MVar)) refuse_operand(x);
    nb::object shape_left = x.attr("shape"), shape_right = shape_of_matrix(A);
    nb::object shape_result = product_shape(shape_left, shape_right);
    if (is_empty_product(shape_left, shape_right, shape_result)) return zeros(cls, shape_result);
    if (keeps_compact(cls) && allows_compact(shape_result) && allows_compact(shape_left))
        return compact_product(cls, A, x, shape_left, Side::left, np.attr("zeros")(shape_result));
    if (is_ndarray(np, A)) return _from_matmul_left_ndarray(cls, x, A);
    if (is_sparse(sp, A)) return _from_matmul_left_spmatrix(cls, x, A);
    refuse_operand(A);
}

// ---- Operands of the full products ----------------------------------------------------------

/// The coefficients as doubles, taken as LinExpr takes them; what isn't real is a TypeError.
static nb::object as_doubles(nb::handle np, nb::handle A) {
    if (is_instance(A, np.attr("matrix")))
        raise(PyExc_TypeError,
              "the rows of a numpy.matrix are matrices again, not coefficients; multiply by "
              "numpy.asarray(A) instead");
    nb::object plain = np.attr("asarray")(A);
    const std::string kind = text_of(plain.attr("dtype").attr("kind"));
    if (kind == "c" || kind == "m" || kind == "M" || kind == "V")
        raise(PyExc_TypeError,
              "coefficients must be real numbers, not of dtype " + text_of(plain.attr("dtype")));
    if (kind != "O") return np.attr("require")(plain, nb::getattr(np, "float64"), "A");
    return doubles_of(np, plain, [](nb::object element) { return as_double(as_float(element)); });
}

/// A two-dimensional array by native strides.
class Grid {
  public:
    Grid(nb::object array, char letter) : array_(array) {
        if (!buffer_.acquire(array_, PyBUF_STRIDES | PyBUF_FORMAT) || !buffer_.holds(letter) ||
            buffer_->ndim != 2)
            raise(PyExc_ValueError, "an operand of a matrix product has the shape " +
                                        text_of(array.attr("shape")) +
                                        "; expected one or two dimensions");
    }
    Py_ssize_t rows() const { return buffer_->shape[0]; }
    Py_ssize_t columns() const { return buffer_->shape[1]; }
    Py_ssize_t extent(int axis) const { return buffer_->shape[axis]; }
    /// Row or column number k, along the other axis.
    Chunk line(int across, Py_ssize_t k) const {
        return {static_cast<char*>(buffer_->buf) + k * buffer_->strides[across],
                buffer_->strides[1 - across]};
    }

  private:
    nb::object array_;
    ArrayBuffer buffer_;
};

/// The new object array of a product, and its slots.
class Result {
  public:
    Result(nb::handle np, Py_ssize_t rows, Py_ssize_t columns)
        : array_(empty_object_array(np, nb::make_tuple(rows, columns))), columns_(columns) {
        if (!buffer_.acquire(array_, PyBUF_C_CONTIGUOUS | PyBUF_WRITABLE)) throw nb::python_error();
        slots_ = {static_cast<char*>(buffer_->buf), sizeof(PyObject*)};
    }
    void store(Py_ssize_t i, Py_ssize_t j, nb::object coeffs, nb::object vars) {
        slots_.store(i * columns_ + j, make_linexpr(0.0, std::move(coeffs), std::move(vars)));
    }
    /// The array without the axes that stand in for missing ones.
    nb::object squeezed(nb::list axes) {
        buffer_.release();
        if (nb::len(axes) == 0) return array_;
        return array_.attr("squeeze")(nb::tuple(axes));
    }

  private:
    nb::object array_;
    Py_ssize_t columns_;
    ArrayBuffer buffer_;
    Chunk slots_;
};

/// Gives a one-dimensional operand the missing axis, which the result is going to lose again.
static nb::object in_two_dimensions(nb::handle np, nb::object array, int axis, nb::list squeezed) {
    if (nb::cast<int>(nb::object(array.attr("ndim"))) != 1) return array;
    squeezed.append(axis);
    return np.attr("expand_dims")(array, axis);
}

static void match_inner(Py_ssize_t A_extent, Py_ssize_t x_extent) {
    if (A_extent != x_extent)
        raise(PyExc_ValueError, "a matrix with the inner dimension " + std::to_string(A_extent) +
                                    " can't multiply variables with the inner dimension " +
                                    std::to_string(x_extent));
}

// ---- Dense products -------------------------------------------------------------------------

/// The lines of a grid across an axis, each as a list.
template <class MakeList>
static std::vector<nb::object> lists_across(const Grid& grid, int across, MakeList&& make_list) {
    std::vector<nb::object> lists;
    lists.reserve(grid.extent(across));
    for (Py_ssize_t k = 0; k < grid.extent(across); ++k)
        lists.push_back(make_list(grid.line(across, k), grid.extent(1 - across)));
    return lists;
}

nb::object _from_matmul_right_ndarray(nb::handle cls, nb::handle A, nb::handle x) {
    nb::object np = import_numpy();
    nb::list squeezed;
    Grid matrix(in_two_dimensions(np, as_doubles(np, A), 0, squeezed), 'd');
    Grid variables(in_two_dimensions(np, x.attr("_vararr"), 1, squeezed), 'O');
    match_inner(matrix.columns(), variables.rows());
    Result result(np, matrix.rows(), variables.columns());
    GcPause pause;
    std::vector<nb::object> columns = lists_across(variables, 1, object_list);
    for (Py_ssize_t i = 0; i < matrix.rows(); ++i) {
        nb::object coeffs = float_list(matrix.line(0, i), matrix.columns());
        for (Py_ssize_t j = 0; j < variables.columns(); ++j)
            result.store(i, j, copy_list(coeffs.ptr()), copy_list(columns[j].ptr()));
    }
    return new_full(cls, result.squeezed(squeezed));
}

nb::object _from_matmul_left_ndarray(nb::handle cls, nb::handle x, nb::handle A) {
    nb::object np = import_numpy();
    nb::list squeezed;
    Grid variables(in_two_dimensions(np, x.attr("_vararr"), 0, squeezed), 'O');
    Grid matrix(in_two_dimensions(np, as_doubles(np, A), 1, squeezed), 'd');
    match_inner(matrix.rows(), variables.columns());
    Result result(np, variables.rows(), matrix.columns());
    GcPause pause;
    std::vector<nb::object> columns = lists_across(matrix, 1, float_list);
    for (Py_ssize_t i = 0; i < variables.rows(); ++i) {
        nb::object vars = object_list(variables.line(0, i), variables.columns());
        for (Py_ssize_t j = 0; j < matrix.columns(); ++j)
            result.store(i, j, copy_list(columns[j].ptr()), copy_list(vars.ptr()));
    }
    return new_full(cls, result.squeezed(squeezed));
}

// ---- Sparse products ------------------------------------------------------------------------

nb::object _from_matmul_right_spmatrix(nb::handle, nb::handle A, nb::handle x) {
    nb::object np = import_numpy();
    nb::list squeezed;
    nb::object csr = sparse::to_csr(A, false);
    refuse_vector(csr);
    Grid variables(in_two_dimensions(np, x.attr("_vararr"), 1, squeezed), 'O');
    sparse::CompressedView matrix(csr);
    match_inner(nb::cast<Py_ssize_t>(nb::object(csr.attr("shape")[1])), variables.rows());
    Result result(np, matrix.lines(), variables.columns());
    GcPause pause;
    for (Py_ssize_t i = 0; i < matrix.lines(); ++i) {
        sparse::Line line = matrix.line(i);
        nb::object coeffs = matrix.value_list(line);
        for (Py_ssize_t j = 0; j < variables.columns(); ++j)
            result.store(i, j, copy_list(coeffs.ptr()),
                         matrix.picked_list(line, variables.line(1, j), variables.rows()));
    }
    return new_full(result.squeezed(squeezed));
}

nb::object _from_matmul_left_spmatrix(nb::handle, nb::handle x, nb::handle A) {
    nb::object np = import_numpy();
    nb::list squeezed;
    nb::object csc = import_sparse().attr("csc_matrix")(
        sparse::sound(A), "dtype"_a = nb::getattr(np, "float64"), "copy"_a = false);
    if (!truth(csc.attr("has_sorted_indices"))) csc = csc.attr("sorted_indices")();
    Grid variables(in_two_dimensions(np, x.attr("_vararr"), 0, squeezed), 'O');
    sparse::CompressedView matrix(csc);
    match_inner(nb::cast<Py_ssize_t>(nb::object(csc.attr("shape")[0])), variables.columns());
    Result result(np, variables.rows(), matrix.lines());
    GcPause pause;
    for (Py_ssize_t j = 0; j < matrix.lines(); ++j) {
        sparse::Line line = matrix.line(j);
        nb::object coeffs = matrix.value_list(line);
        for (Py_ssize_t i = 0; i < variables.rows(); ++i)
            result.store(i, j, copy_list(coeffs.ptr()),
                         matrix.picked_list(line, variables.line(0, i), variables.columns()));
    }
    return new_full(result.squeezed(squeezed));
}

// ---- The table ------------------------------------------------------------------------------

void add_build_matmul_methods(ClassBody& body) {
    body.class_method<&_from_matmul_right>(
            "_from_matmul_right(cls, A, x)",
            R"(A @ x for an MVar x, compact where the shapes allow it.)")
        .class_method<&_from_matmul_left>(
            "_from_matmul_left(cls, x, A)",
            R"(x @ A for an MVar x, compact where the shapes allow it.)")
        .class_method<&_from_matmul_right_ndarray>(
            "_from_matmul_right_ndarray(cls, A, x)",
            R"(A @ x in the full form; each entry of a dense A makes a term, zeros too.)")
        .class_method<&_from_matmul_right_spmatrix>(
            "_from_matmul_right_spmatrix(cls, A, x)",
            R"(A @ x in the full form; each stored entry of a sparse A makes a term.)")
        .class_method<&_from_matmul_left_ndarray>(
            "_from_matmul_left_ndarray(cls, x, A)",
            R"(x @ A in the full form; each entry of a dense A makes a term, zeros too.)")
        .class_method<&_from_matmul_left_spmatrix>(
            "_from_matmul_left_spmatrix(cls, x, A)",
            R"(x @ A in the full form; each stored entry of a sparse A makes a term, by rising row.)");
}

}  // namespace taviropy::mlinexpr
