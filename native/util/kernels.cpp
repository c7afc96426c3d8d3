// Matrix products over elements of any type: each output element is f_sum of a list of
// f_multiply(left, right).
#include "util.hpp"

namespace taviropy {

namespace {

struct KernelArguments {
    PyObject *left, *right, *f_multiply, *f_sum;
};

KernelArguments parse(PyObject* args, PyObject* kwargs, const char* format, const char* left,
                      const char* right) {
    const char* keywords[] = {left, right, "f_multiply", "f_sum", nullptr};
    KernelArguments parsed;
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, format, const_cast<char**>(keywords),
                                     &parsed.left, &parsed.right, &parsed.f_multiply,
                                     &parsed.f_sum))
        throw PythonError();
    return parsed;
}

/// The items of an object array of one or two dimensions, in C order, owned.
class Elements {
  public:
    explicit Elements(PyObject* array) {
        Ref asarray = import_name("numpy", "asarray");
        Ref objects = checked(PyObject_CallFunction(asarray.get(), "Os", array, "object"));
        Buffer buffer(objects.get(), PyBUF_RECORDS_RO);
        shape.assign(buffer->shape, buffer->shape + buffer->ndim);
        items_.reserve(buffer.size());
        Walker walker(buffer);
        for (Py_ssize_t k = buffer.size(); k > 0; --k) {
            PyObject* item = *reinterpret_cast<PyObject**>(walker.next());
            items_.push_back(borrow(item ? item : Py_None));
        }
    }

    PyObject* at(Py_ssize_t row, Py_ssize_t col, Py_ssize_t cols) const {
        return items_[row * cols + col].get();
    }

    Shape shape;

  private:
    std::vector<Ref> items_;
};

/// The extents of a product, with a single row or column for an operand of one dimension.
struct Frame {
    Shape shape;
    Py_ssize_t rows, inner, cols;

    Frame(const Shape& left, const Shape& right) {
        if (!product_shape(left, right, shape)) refuse_product(left, right);
        rows = left.size() == 2 ? left[0] : 1;
        inner = left.back();
        cols = right.size() == 2 ? right[1] : 1;
    }
};

/// The terms of one output element.
class Terms {
  public:
    explicit Terms(const KernelArguments& functions)
        : functions_(functions), list_(checked(PyList_New(0))) {}

    void add(PyObject* left, PyObject* right) {
        PyObject* args[] = {left, right};
        Ref term = checked(PyObject_Vectorcall(functions_.f_multiply, args, 2, nullptr));
        check(PyList_Append(list_.get(), term.get()));
    }
    Ref sum() const { return checked(PyObject_CallOneArg(functions_.f_sum, list_.get())); }

  private:
    const KernelArguments& functions_;
    Ref list_;
};

/// Fills an object array of the result's shape; collect(i, j, terms) adds the terms of an element.
template <class Collect>
Ref fill_product(const Frame& frame, const KernelArguments& functions, Collect collect) {
    Ref shape = shape_tuple(frame.shape);
    Ref array = new_array("object", shape.get());
    Buffer buffer(array.get(), PyBUF_CONTIG);
    PyObject** slot = static_cast<PyObject**>(buffer->buf);
    for (Py_ssize_t i = 0; i < frame.rows; ++i) {
        for (Py_ssize_t j = 0; j < frame.cols; ++j) {
            Terms terms(functions);
            collect(i, j, terms);
            Py_XSETREF(*slot, terms.sum().release());
            ++slot;
        }
    }
    return array;
}

Ref dense_matmul_kernel(PyObject*, PyObject* args, PyObject* kwargs) {
    KernelArguments given =
        parse(args, kwargs, "OOOO:_dense_matmul_kernel", "left_arr", "right_arr");
    Elements left(given.left), right(given.right);
    Frame frame(left.shape, right.shape);
    return fill_product(frame, given, [&](Py_ssize_t i, Py_ssize_t j, Terms& terms) {
        for (Py_ssize_t k = 0; k < frame.inner; ++k)
            terms.add(left.at(i, k, frame.inner), right.at(k, j, frame.cols));
    });
}

Ref sparse_right_matmul_kernel(PyObject*, PyObject* args, PyObject* kwargs) {
    KernelArguments given =
        parse(args, kwargs, "OOOO:_sparse_right_matmul_kernel", "left_arr", "right");
    Elements left(given.left);
    const Shape shape = sparse_shape(given.right);
    Frame frame(left.shape, shape);
    CompressedMatrix matrix = read_compressed(given.right, shape, true);
    return fill_product(frame, given, [&](Py_ssize_t i, Py_ssize_t j, Terms& terms) {
        for (Py_ssize_t p = matrix.indptr[j]; p < matrix.indptr[j + 1]; ++p)
            terms.add(left.at(i, matrix.indices[p], frame.inner), matrix.values[p].get());
    });
}

Ref sparse_left_matmul_kernel(PyObject*, PyObject* args, PyObject* kwargs) {
    KernelArguments given =
        parse(args, kwargs, "OOOO:_sparse_left_matmul_kernel", "left", "right_arr");
    Elements right(given.right);
    const Shape shape = sparse_shape(given.left);
    Frame frame(shape, right.shape);
    CompressedMatrix matrix = read_compressed(given.left, shape, false);
    return fill_product(frame, given, [&](Py_ssize_t i, Py_ssize_t j, Terms& terms) {
        for (Py_ssize_t p = matrix.indptr[i]; p < matrix.indptr[i + 1]; ++p)
            terms.add(matrix.values[p].get(), right.at(matrix.indices[p], j, frame.cols));
    });
}

}  // namespace

PyMethodDef kernel_methods[] = {
    {"_dense_matmul_kernel", method<dense_matmul_kernel>(), METH_VARARGS | METH_KEYWORDS,
     R"(_dense_matmul_kernel(left_arr, right_arr, f_multiply, f_sum)
--

The matrix product of two object arrays of one or two dimensions: out[i, j] is
f_sum([f_multiply(left[i, k], right[k, j]) for each k]).

An object ndarray of the product's shape; ValueError where the shapes do not fit.)"},
    {"_sparse_right_matmul_kernel", method<sparse_right_matmul_kernel>(),
     METH_VARARGS | METH_KEYWORDS,
     R"(_sparse_right_matmul_kernel(left_arr, right, f_multiply, f_sum)
--

As the dense kernel, over the stored entries of each column of a SciPy sparse matrix, row numbers
rising and zeros kept; each entry passes as a float.

ValueError for a malformed matrix as well.)"},
    {"_sparse_left_matmul_kernel", method<sparse_left_matmul_kernel>(),
     METH_VARARGS | METH_KEYWORDS,
     R"(_sparse_left_matmul_kernel(left, right_arr, f_multiply, f_sum)
--

As the dense kernel, over the stored entries of each row of a SciPy sparse matrix, column numbers
rising and zeros kept; each entry passes as a float.

ValueError for a malformed matrix as well.)"},
    {"_dense_array", method<dense_array>(), METH_O,
     R"(_dense_array(matrix, /)
--

matrix.toarray() for a SciPy sparse matrix or array; ValueError where it is malformed, which SciPy
itself would not notice.)"},
    {nullptr},
};

}  // namespace taviropy
