// The two forms of an MLinExpr, the way from the compact to the full one, and what changes the
// state of either in place: folding, merging and clearing terms.

#include "core_interface/scalars.hpp"
#include "mlinexpr/mlinexpr.hpp"
#include "mvar/mvar.hpp"
#include "support/imports.hpp"
#include "support/numbers.hpp"
#include "support/object_arrays.hpp"
#include "support/sparse.hpp"
#include "support/sparse_views.hpp"

namespace taviropy::mlinexpr {

using namespace nb::literals;

static OwnClass own_class;

static bool is_one(nb::handle value) {
    if (PyLong_CheckExact(value.ptr())) return PyLong_AsLong(value.ptr()) == 1;
    return value.equal(nb::int_(1));
}

bool keeps_compact(nb::handle cls) { return is_one(cls.attr("_keep_compact")); }

bool take_compact_lane(nb::handle self) {
    if (!is_compact(self)) return false;
    if (keeps_compact(names::MLinExpr())) return true;
    _convert_to_full(self);
    return false;
}

bool is_compact(nb::handle self) {
    bool compact = !parts_of(self).is_none();
    PY_ASSERT(const_of(self).is_none() != compact && learr_of(self).is_none() == compact);
    return compact;
}

static bool is_above_one(nb::handle extent) {
    if (!PyLong_CheckExact(extent.ptr())) return extent > nb::int_(1);
    int overflow = 0;
    return PyLong_AsLongAndOverflow(extent.ptr(), &overflow) > 1 || overflow > 0;
}

bool allows_compact(nb::handle shape) {
    if (nb::len(shape) >= 3) return false;
    int above_one = 0;
    for (nb::handle extent : shape) above_one += is_above_one(extent);
    return above_one <= 1;
}

nb::object shape_of(nb::handle self) {
    if (!is_compact(self)) return learr_of(self).attr("shape");
    nb::object b = const_of(self);
    PY_ASSERT(!is_instance(b, import_numpy().attr("matrix")));
    return b.attr("shape");
}

Py_ssize_t leading_adim(nb::handle self) {
    return nb::cast<Py_ssize_t>(nb::object(const_of(self).attr("size")));
}

// ---- The constructor ------------------------------------------------------------------------

static void set_fields(nb::handle self, nb::handle learr, nb::handle parts, nb::handle b) {
    nb::setattr(self, "_learr", learr);
    nb::setattr(self, "_matmulparts", parts);
    nb::setattr(self, "_const", b);
}

/// The array to be held. Derived classes have rules of their own; an expression holds none of them.
static nb::object plain(nb::handle array) {
    nb::object np = import_numpy();
    if (is_exact(np, array)) return nb::borrow(array);
    PY_ASSERT(is_ndarray(np, array));
    return plain_array(np, array);
}

// NumPy's numbers of its types.
constexpr int kFirstInteger = 1, kLastInteger = 10, kDouble = 12;

static int type_number(nb::handle array) {
    return nb::cast<int>(nb::object(array.attr("dtype").attr("num")));
}

static bool is_float64(nb::handle array) {
    return type_number(array) == kDouble && truth(array.attr("dtype").attr("isnative"));
}

static void assert_part(nb::handle sp, nb::handle part) {
    PY_ASSERT(nb::len(part) == 2);
    nb::object A = part[0], x = part[1];
    PY_ASSERT(is_instance(A, sp.attr("csr_matrix")));
    PY_ASSERT(is_float64(A.attr("data")));
    int index_type = type_number(A.attr("indptr"));
    PY_ASSERT(kFirstInteger <= index_type && index_type <= kLastInteger);
    PY_ASSERT(is_a(x, names::MVar));
    nb::object x_shape = x.attr("shape");
    PY_ASSERT(nb::len(x_shape) == 1 && x_shape[0].equal(A.attr("shape")[1]));
}

static void assert_compact(nb::handle parts, nb::handle b) {
    if (!asserts_enabled()) return;
    PY_ASSERT(!parts.is_none() && !b.is_none());
    nb::object np = import_numpy();
    PY_ASSERT(is_ndarray(np, b));
    std::size_t count = nb::len(parts);
    if (count == 0) return;
    PY_ASSERT(truth(b.attr("size")));
    nb::object sp = import_sparse();
    for (nb::handle part : parts) assert_part(sp, part);
}

static nb::object init(nb::handle self, nb::handle wraponly, nb::handle matmulparts, nb::handle b) {
    if (!wraponly.is_none()) {
        PY_ASSERT(matmulparts.is_none() && b.is_none());
        set_fields(self, plain(wraponly), nb::none(), nb::none());
    } else {
        assert_compact(matmulparts, b);
        set_fields(self, nb::none(), matmulparts, plain(b));
    }
    return nb::none();
}

nb::object new_full(nb::handle cls, nb::handle learr) {
    if (!own_class.is(cls)) return cls(learr);
    nb::object self = own_class.make();
    set_fields(self, plain(learr), nb::none(), nb::none());
    return self;
}

nb::object new_compact(nb::handle cls, nb::handle parts, nb::handle b) {
    if (!own_class.is(cls)) return cls("matmulparts"_a = parts, "b"_a = b);
    // Parts that this module has made are as the constructor wants them.
    if (nb::len(parts) != 0) PY_ASSERT(truth(b.attr("size")));
    nb::object self = own_class.make();
    set_fields(self, nb::none(), parts, b);
    return self;
}

// ---- Properties -----------------------------------------------------------------------------

static nb::object _is_compact(nb::handle self) { return nb::bool_(is_compact(self)); }

static nb::object _allows_compact(nb::handle shape) { return nb::bool_(allows_compact(shape)); }

static nb::object ndim(nb::handle self) {
    return (is_compact(self) ? const_of(self) : learr_of(self)).attr("ndim");
}

static nb::object size(nb::handle self) {
    return (is_compact(self) ? const_of(self) : learr_of(self)).attr("size");
}

static nb::object _leading_adim(nb::handle self) { return const_of(self).attr("size"); }

// ---- Parts of the compact form --------------------------------------------------------------

nb::object _concat_matmulparts(nb::handle self) {
    nb::object parts = parts_of(self);
    if (nb::len(parts) <= 1) return nb::none();
    std::vector<sparse::Beside> matrices;
    nb::list arrays;
    for (nb::handle part : parts) {
        matrices.push_back({part[0]});
        arrays.append(nb::getattr(part[1], "_vararr"));
    }
    nb::object A = sparse::hstack(matrices);
    nb::object x = mvar::new_mvar(import_numpy().attr("concatenate")(arrays));
    nb::list merged;
    merged.append(nb::make_tuple(A, x));
    nb::setattr(self, "_matmulparts", merged);
    return nb::none();
}

Part merged_part(nb::handle self) {
    _concat_matmulparts(self);
    nb::object parts = parts_of(self);
    if (nb::len(parts) == 0) return {};
    nb::object part = parts[0];
    return {part[0], part[1]};
}

Axb extract_Axb(nb::handle self) {
    PY_ASSERT(is_compact(self));
    Part part = merged_part(self);
    if (!part.A.is_valid()) return {nb::none(), nb::none(), const_of(self)};
    return {part.A, part.x, const_of(self)};
}

static nb::object _extract_Axb(nb::handle self) {
    Axb found = extract_Axb(self);
    return nb::make_tuple(found.A, found.x, found.b);
}

static void assert_fits(nb::handle self, nb::handle A, nb::handle x) {
    if (!asserts_enabled()) return;
    nb::object rows_columns = A.attr("shape"), x_shape = x.attr("shape");
    PY_ASSERT(nb::len(rows_columns) == 2 && nb::len(x_shape) == 1);
    PY_ASSERT(rows_columns[0].equal(_leading_adim(self)));
    PY_ASSERT(rows_columns[1].equal(x_shape[0]));
    PY_ASSERT(truth(size(self)));
}

static void append_part(nb::handle self, nb::handle A, nb::handle x) {
    nb::object part = nb::make_tuple(A, x), parts = parts_of(self);
    if (PyList_CheckExact(parts.ptr()))
        append_to_list(parts.ptr(), part.ptr());
    else
        parts.attr("append")(part);
}

void add_own_part(nb::handle self, nb::handle A, nb::handle x) {
    assert_fits(self, A, x);
    append_part(self, A, x);
}

nb::object _add_matmul_part(nb::handle self, nb::handle A, nb::handle x) {
    assert_fits(self, A, x);
    append_part(self, sparse::to_csr(A, false), x);
    return nb::none();
}

// ---- The full form --------------------------------------------------------------------------

/// The constants as C-contiguous doubles; refuses types that would lose something.
static void view_constants(nb::object& b, ArrayBuffer& constants) {
    constexpr int flags = PyBUF_C_CONTIGUOUS | PyBUF_FORMAT;
    if (constants.acquire(b, flags) && constants.holds('d')) return;
    constants.release();
    nb::object np = import_numpy();
    nb::object doubles = np.attr("empty")(nb::getattr(b, "shape"));
    np.attr("copyto")(doubles, b, "casting"_a = "safe");
    b = doubles;
    if (!constants.acquire(b, flags)) throw nb::python_error();
}

/// Elements with the terms of the rows of A over the variables of x, converted.
static void fill_rows(const Chunk& out, Py_ssize_t size, const double* constant, const Part& part,
                      const Conversion& convert) {
    sparse::CompressedView rows(part.A);
    nb::object vararr = part.x.attr("_vararr");
    ArrayBuffer variables;
    if (!variables.acquire(vararr, PyBUF_STRIDES | PyBUF_FORMAT) || !variables.holds('O') ||
        variables->ndim != 1)
        raise(PyExc_ValueError, "the variables of a product are not a one-dimensional array");
    if (rows.lines() < size)
        raise(PyExc_IndexError, "the matrix of an expression has " + std::to_string(rows.lines()) +
                                    " rows for " + std::to_string(size) + " elements");
    const Chunk picked = {static_cast<char*>(variables->buf), variables->strides[0]};
    for (Py_ssize_t i = 0; i < size; ++i) {
        sparse::Line line = rows.line(i);
        out.store(i, convert(make_linexpr(0.0 + constant[i], rows.value_list(line),
                                          rows.picked_list(line, picked, variables->shape[0]))));
    }
}

nb::object converted_elements(nb::handle self, const Conversion& convert) {
    nb::object np = import_numpy();
    nb::object b = const_of(self);
    if (b.is_none())  // a full expression has nothing to convert
        raise(PyExc_TypeError, "unsupported operand type(s) for +=: 'MLinExpr' and 'NoneType'");
    Part part = merged_part(self);
    nb::object array = empty_object_array(np, b.attr("shape"));
    ArrayBuffer constants, elements;
    view_constants(b, constants);
    if (!elements.acquire(array, PyBUF_C_CONTIGUOUS | PyBUF_WRITABLE)) throw nb::python_error();
    const auto* constant = static_cast<const double*>(constants->buf);
    const Chunk out = {static_cast<char*>(elements->buf), sizeof(PyObject*)};
    const Py_ssize_t size = elements->len / elements->itemsize;
    if (constants->len / constants->itemsize != size)
        raise(PyExc_ValueError, "the constants of an expression have another size than its shape");
    GcPause pause;
    if (!part.A.is_valid()) {
        for (Py_ssize_t i = 0; i < size; ++i)
            out.store(i, convert(make_linexpr(0.0 + constant[i], nb::list(), nb::list())));
    } else {
        fill_rows(out, size, constant, part, convert);
    }
    return array;
}

nb::object _to_full(nb::handle self) {
    return new_full(converted_elements(self, [](nb::object le) { return le; }));
}

nb::object _convert_to_full(nb::handle self) {
    if (!is_compact(self)) return nb::none();
    nb::object full = _to_full(self);
    set_fields(self, learr_of(full), nb::none(), nb::none());
    return nb::none();
}

// ---- Terms folded and merged ------------------------------------------------------------------

constexpr WalkFlags kFlattenFlags = {flag::zerosize_ok, {flag::readwrite}};

nb::object _flatten(nb::handle self) {
    if (is_compact(self)) return nb::none();
    walk<1>(kFlattenFlags, {learr_of(self)}, [](const auto& chunks, Py_ssize_t k) {
        if (is_plain_linexpr(chunks[0][k])) return;
        nb::object le = chunks[0].element(k);
        as_linexpr(le.ptr());
        le.attr("_flatten")();
    });
    return nb::none();
}

constexpr WalkFlags kNormalizeFlags = {flag::buffered, {flag::readwrite}};

nb::object _normalize(nb::handle self) {
    if (is_compact(self)) return nb::none();
    walk<1>(kNormalizeFlags, {learr_of(self)}, [](const auto& chunks, Py_ssize_t k) {
        nb::object le = chunks[0].element(k);
        as_linexpr(le.ptr());
        le.attr("_normalize")();
    });
    return nb::none();
}

// ---- Resetting ------------------------------------------------------------------------------

static constexpr const char* kClearDoc = R"(ROUTINE:
    clear()

PURPOSE:
    Reset this expression to all zero, in place. Its shape stays.

ARGUMENTS:
    None.

RETURN VALUE:
    None.

EXAMPLE:
    mle.clear()

NOTES:
    Views of this expression are reset with it. An expression without elements,
    such as one of shape (0, 3, 4), may raise NumPy's ValueError.
)";

static nb::object _clear_compact(nb::handle self) {
    nb::setattr(self, "_matmulparts", nb::list());
    const_of(self).attr("fill")(0.0);
    return nb::none();
}

constexpr WalkFlags kClearFlags = {flag::none, {flag::readwrite}};

static nb::object _clear_full(nb::handle self) {
    walk<1>(kClearFlags, {learr_of(self)}, [](const auto& chunks, Py_ssize_t k) {
        nb::object le = chunks[0].element(k);
        as_linexpr(le.ptr());
        le.attr("clear")();
    });
    return nb::none();
}

nb::object clear(nb::handle self) {
    return is_compact(self) ? _clear_compact(self) : _clear_full(self);
}

// ---- The table ------------------------------------------------------------------------------

void add_form_methods(ClassBody& body) {
    own_class = names::MLinExpr();
    body.method<&init>(
            "__init__(self, wraponly=None, matmulparts=None, b=None)",
            R"(Wraps an object array of LinExpr, or parts (A, x) and a constant array b, without
copying.)")
        .property<&_is_compact>(
            "_is_compact",
            R"(True where sparse parts and a constant hold the expression, False where an array of
LinExpr does.)")
        .static_method<&_allows_compact>(
            "_allows_compact(shape)",
            R"(Whether an expression of this shape may be compact: at most two dimensions, at most
one of them above 1.)")
        .property<&shape_of>("shape", R"(The shape of the expression, as a tuple of ints)")
        .property<&ndim>("ndim", R"(The number of dimensions of this expression)")
        .property<&size>("size", R"(The number of elements of this expression)")
        .property<&_leading_adim>("_leading_adim",
                                  R"(The number of rows that the matrix of every part has.)")
        .method<&_concat_matmulparts>(
            "_concat_matmulparts(self)",
            R"(Merges all parts into one, side by side; the value stays.)")
        .method<&_extract_Axb>(
            "_extract_Axb(self)",
            R"(The expression's own (A, x, b), its parts merged; A and x are None where it has no
part.)")
        .method<&_add_matmul_part>("_add_matmul_part(self, A, x)",
                                   R"(Appends the part A @ x, A becoming a float64 csr_matrix.)")
        .method<&_to_full>(
            "_to_full(self)",
            R"(The same expression as a new one in the full form. Merges the parts of this one.)")
        .method<&_convert_to_full>("_convert_to_full(self)",
                                   R"(Switches this expression to the full form, in place.)")
        .method<&_flatten>("_flatten(self)", R"(Flattens each element of a full expression.)")
        .method<&_normalize>(
            "_normalize(self)",
            R"(Merges the terms of one variable in each element of a full expression.)")
        .method<&clear>("clear(self)", kClearDoc)
        .method<&_clear_compact>("_clear_compact(self)")
        .method<&_clear_full>("_clear_full(self)");
}

}  // namespace taviropy::mlinexpr
