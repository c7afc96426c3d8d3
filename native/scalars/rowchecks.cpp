// Checks of the rows of large blocks, which a model takes as the arrays that they are.
#include <algorithm>
#include <cstring>
#include <functional>

#include "elements.hpp"
#include "rows.hpp"

namespace taviropy {

FieldNames field_names;

namespace {

bool all_finite(const double* values, int64_t size) {
    uint64_t bad = 0;
    for (int64_t k = 0; k < size; ++k) {
        uint64_t bits;
        std::memcpy(&bits, values + k, sizeof bits);
        bad |= ((bits >> 52) & 0x7ff) == 0x7ff;  // infinite or NaN
    }
    return bad == 0;
}

bool all_rising(const CsrArrays& rows, Py_ssize_t count) {
    for (Py_ssize_t row = 0; row < count; ++row)
        for (int64_t k = rows.indptr[row] + 1; k < rows.indptr[row + 1]; ++k)
            if (rows.indices[k - 1] >= rows.indices[k]) return false;
    return true;
}

Ref scan_rows(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("scan_rows", nargs, 3, 3);
    CsrArrays rows(args[0], args[1], args[2]);
    Py_ssize_t count = rows.indptr.size() - 1;
    if (count < 0 || !rows.is_whole(count)) return none();
    bool finite = all_finite(rows.values(), rows.indptr[count]);
    return checked(
        Py_BuildValue("NN", PyBool_FromLong(finite), PyBool_FromLong(all_rising(rows, count))));
}

/// Whether all indices are at least 0 and below `size`. In rising rows their ends tell.
bool all_within(const CsrArrays& rows, Py_ssize_t count, bool rising, int64_t size) {
    if (!rising) {
        for (int64_t k = 0; k < rows.indptr[count]; ++k)
            if (rows.indices[k] < 0 || rows.indices[k] >= size) return false;
        return true;
    }
    for (Py_ssize_t row = 0; row < count; ++row) {
        int64_t first = rows.indptr[row], end = rows.indptr[row + 1];
        if (first < end && (rows.indices[first] < 0 || rows.indices[end - 1] >= size)) return false;
    }
    return true;
}

/// The ids of all indices of the rows as an array; None where ids and indices are equal.
Ref mapped_ids(const std::vector<int32_t>& ids, const CsrArrays& rows, int64_t nnz) {
    bool equal = true;
    for (std::size_t k = 0; k < ids.size() && equal; ++k) equal = ids[k] == static_cast<int32_t>(k);
    if (equal) return none();
    FilledArray<int32_t> mapped("int32", nnz);
    for (int64_t k = 0; k < nnz; ++k) mapped.items[k] = ids[rows.indices[k]];
    return std::move(mapped.array);
}

Ref product_rows(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("product_rows", nargs, 5, 5);
    PyObject* model = model_argument(args[0]);
    Objects variables(args[1]);
    CsrArrays rows(args[2], args[3], args[4]);
    Py_ssize_t count = rows.indptr.size() - 1;
    if (count < 0 || !rows.is_whole(count)) return none();
    bool rising = all_rising(rows, count);
    if (!all_within(rows, count, rising, variables.size())) return none();
    std::vector<int32_t> ids(static_cast<std::size_t>(variables.size()));
    variables.each([&](Py_ssize_t k, PyObject* var) { ids[k] = checked_id(model, kVar, var, k); });
    Ref mapped = mapped_ids(ids, rows, rows.indptr[count]);
    rising =
        rising && (mapped.get() == Py_None ||
                   std::adjacent_find(ids.begin(), ids.end(), std::greater_equal<>()) == ids.end());
    bool finite = all_finite(rows.values(), rows.indptr[count]);
    return checked(
        Py_BuildValue("NNN", mapped.release(), PyBool_FromLong(finite), PyBool_FromLong(rising)));
}

/// Whether an array, of which the caller has one new reference, is held by its matrix alone.
bool is_held_once(const Ref& array) {
    Ref base = field(array.get(), "base");
    return Py_REFCNT(array.get()) == 2 && base.get() == Py_None;
}

bool is_matrix_held_once(PyObject* matrix) {
    return Py_REFCNT(matrix) == 1 && is_held_once(field(matrix, field_names.indptr)) &&
           is_held_once(field(matrix, field_names.indices)) &&
           is_held_once(field(matrix, field_names.data));
}

bool is_left_held_once(PyObject* constr) {
    PyObject* expr = reinterpret_cast<TempConstrObject*>(constr)->lhs;
    if (Py_REFCNT(expr) != 1) return false;
    Ref parts = field(expr, field_names.matmulparts);
    if (!PyList_CheckExact(parts.get()) || Py_REFCNT(parts.get()) != 2) return false;
    for (Py_ssize_t k = 0; k < PyList_GET_SIZE(parts.get()); ++k) {
        Ref pair = borrow(PyList_GET_ITEM(parts.get(), k));  // a second reference
        if (!PyTuple_CheckExact(pair.get()) || PyTuple_GET_SIZE(pair.get()) != 2 ||
            Py_REFCNT(pair.get()) != 2 || !is_matrix_held_once(PyTuple_GET_ITEM(pair.get(), 0)))
            return false;
    }
    return true;
}

Ref holds_left_alone(PyObject*, PyObject* constr) {
    if (!Py_IS_TYPE(constr, types.tempconstr))
        raise(PyExc_TypeError, "holds_left_alone takes a TempConstr");
    return checked(PyBool_FromLong(is_left_held_once(constr)));
}

/// Turns sound rows to columns: a counting sort. What is written lies far apart, so it is fetched
/// ahead.
template <class Start>
void turn(const Start* indptr, const int32_t* ids, const double* data, Py_ssize_t count,
          int32_t* starts, Py_ssize_t columns, int32_t* rows, double* values) {
    constexpr int64_t kAhead = 16;
    const int64_t nnz = indptr[count];
    std::fill(starts, starts + columns + 1, 0);
    for (int64_t k = 0; k < nnz; ++k) ++starts[ids[k] + 1];
    for (Py_ssize_t c = 0; c < columns; ++c) starts[c + 1] += starts[c];
    for (Py_ssize_t row = 0; row < count; ++row) {
        for (int64_t k = indptr[row]; k < indptr[row + 1]; ++k) {
            if (k + 3 * kAhead < nnz) {
                __builtin_prefetch(starts + ids[k + 3 * kAhead], 1);
                const int32_t soon = starts[ids[k + kAhead]];
                __builtin_prefetch(rows + soon, 1);
                __builtin_prefetch(values + soon, 1);
            }
            const int32_t place = starts[ids[k]]++;
            rows[place] = static_cast<int32_t>(row);
            values[place] = data[k];
        }
    }
    std::copy_backward(starts, starts + columns, starts + columns + 1);
    starts[0] = 0;
}

Ref columns_of_rows(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("columns_of_rows", nargs, 4, 4);
    CsrArrays rows(args[0], args[1], args[2]);
    const Py_ssize_t columns = PyLong_AsSsize_t(args[3]), count = rows.indptr.size() - 1;
    if (columns == -1 && PyErr_Occurred()) throw PythonError();
    if (columns < 0 || count < 0 || !rows.is_whole(count) || !rows.indices.is_narrow() ||
        rows.indptr[count] > 0x7fffffff || !all_within(rows, count, false, columns))
        return none();
    const int64_t nnz = rows.indptr[count];
    FilledArray<int32_t> starts("int32", columns + 1), indices("int32", nnz);
    FilledArray<double> data("float64", nnz);
    const int32_t* ids = rows.indices.narrow();
    if (rows.indptr.is_narrow())
        turn(rows.indptr.narrow(), ids, rows.values(), count, starts.items, columns, indices.items,
             data.items);
    else
        turn(rows.indptr.wide(), ids, rows.values(), count, starts.items, columns, indices.items,
             data.items);
    return checked(PyTuple_Pack(3, starts.array.get(), indices.array.get(), data.array.get()));
}

PyMethodDef functions[] = {
    {"columns_of_rows", method<columns_of_rows>(), METH_FASTCALL,
     R"(columns_of_rows(indptr, ids, data, columns, /)
--

The same coefficients by column: (indptr, rows, data). None where the arrays don't make up rows of
that many columns, or their ids aren't int32.)"},
    {"scan_rows", method<scan_rows>(), METH_FASTCALL,
     R"(scan_rows(indptr, indices, data, /)
--

Looks through CSR rows: (whether all coefficients are finite, whether indices rise in each row).
None where the arrays don't make up rows: indptr starts at 0, never falls and ends within the data.)"},
    {"product_rows", method<product_rows>(), METH_FASTCALL,
     R"(product_rows(model, vararr, indptr, indices, data, /)
--

Reads the rows of a CSR matrix times variables: (ids of the variables of all coefficients int32, or
None where they equal the indices; whether all coefficients are finite; whether ids are known to
rise in each row). None where the arrays don't make up rows of that many columns.

TypeError and TaviroError for variables as Model._ids has them.)"},
    {"holds_left_alone", method<holds_left_alone>(), METH_O,
     R"(holds_left_alone(constr, /)
--

Whether nobody but a TempConstr holds its left side, a compact MLinExpr, with its matrices
and their arrays: then nothing can change them.)"},
    {nullptr},
};

}  // namespace

void ready_row_checks(PyObject* module) {
    const char* texts[] = {"_matmulparts", "_const", "indptr", "indices", "data", "_vararr"};
    PyObject** names = &field_names.matmulparts;
    for (const char* text : texts) *names++ = checked(PyUnicode_InternFromString(text)).release();
    check(PyModule_AddFunctions(module, functions));
}

}  // namespace taviropy
