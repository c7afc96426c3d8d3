// The two forms of an MQuadExpr, the way from the compact to the full one, and what changes the
// state of either in place: folding, merging and clearing terms.
//
// Compact: `_quadparts`, a list of products (x, Q, y) with x and y one-dimensional MVars and Q a
// coo_matrix of float64; each stands for the number x @ Q @ y, so there is one element at most.
// Full: `_qearr`, an object array of QuadExpr, quadratic terms only. In both forms the linear terms
// and the constant live in `_ndle`, an MLinExpr whose own form is independent.

#include "core_interface/scalars.hpp"
#include "mquadexpr/mquadexpr.hpp"
#include "mvar/mvar.hpp"
#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/numbers.hpp"
#include "support/object_arrays.hpp"
#include "support/operators.hpp"
#include "support/sparse.hpp"

namespace taviropy::mquadexpr {

using namespace nb::literals;

namespace {

OwnClass own_class;

/// Calls a method without arguments on every element.
void for_each(const WalkFlags& flags, nb::handle qearr, const char* method) {
    nb::object name = checked(PyUnicode_InternFromString(method));
    walk<1>(flags, {qearr}, [&](const auto& chunks, Py_ssize_t k) {
        nb::object element = chunks[0].element(k);
        checked(PyObject_CallMethodNoArgs(element.ptr(), name.ptr()));
    });
}

bool is_float64(nb::handle np, nb::handle array) {
    return array.attr("dtype").equal(np.attr("dtype")("float64"));
}

bool is_integer(nb::handle array) {
    nb::object kind = array.attr("dtype").attr("kind");
    return kind.equal(nb::str("i")) || kind.equal(nb::str("u"));
}

bool is_mvar_of(nb::handle x, nb::handle length) {
    return is_a(x, names::MVar) && x.attr("shape").equal(nb::make_tuple(length));
}

void assert_valid_parts(nb::handle np, nb::handle quadparts) {
    nb::object coo_matrix = import_sparse().attr("coo_matrix");
    for (nb::handle entry : quadparts) {
        QuadPart part(entry);
        PY_ASSERT(is_instance(part.Q, coo_matrix));
        PY_ASSERT(is_float64(np, part.Q.attr("data")));
        PY_ASSERT(is_integer(part.Q.attr("row")));
        PY_ASSERT(is_integer(part.Q.attr("col")));
        nb::object shape = part.Q.attr("shape");
        PY_ASSERT(is_mvar_of(part.x, nb::object(shape[0])));
        PY_ASSERT(is_mvar_of(part.y, nb::object(shape[1])));
    }
}

}  // namespace

QuadPart::QuadPart(nb::handle part) {
    nb::object items = checked(PySequence_Tuple(part.ptr()));
    if (nb::len(items) != 3)
        raise(PyExc_ValueError, "a quadratic part has " + std::to_string(nb::len(items)) +
                                    " members; expected 3: (x, Q, y)");
    x = items[0];
    Q = items[1];
    y = items[2];
}

nb::object QuadPart::copied() const {
    return nb::make_tuple(x.attr("copy")(), sparse::copy(Q), y.attr("copy")());
}

bool keeps_compact(nb::handle cls) { return cls.attr("_keep_compact").equal(nb::int_(1)); }

bool allows_compact(nb::handle shape) {
    if (nb::len(shape) > 2) return false;
    nb::int_ one(1);
    for (nb::handle extent : shape) {
        int fits = PyObject_RichCompareBool(extent.ptr(), one.ptr(), Py_LE);
        check(fits);
        if (!fits) return false;
    }
    return true;
}

bool is_compact(nb::handle self) { return truth(self.attr("_is_compact")); }

bool take_compact_lane(nb::handle self) {
    if (!is_compact(self)) return false;
    if (keeps_compact(names::MQuadExpr())) return true;
    _convert_to_full(self);
    return false;
}

static void assert_valid_fields(nb::handle qearr, nb::handle quadparts, nb::handle ndle) {
    PY_ASSERT(!ndle.is_none());
    if (!qearr.is_none()) {
        PY_ASSERT(quadparts.is_none());
        PY_ASSERT(qearr.attr("shape").equal(ndle.attr("shape")));
        return;
    }
    PY_ASSERT(!quadparts.is_none());
    PY_ASSERT(allows_compact(ndle.attr("shape")));
    PY_ASSERT(size_of(ndle) > 0 || nb::len(quadparts) == 0);
    assert_valid_parts(import_numpy(), quadparts);
}

static nb::object init(nb::handle self, nb::handle qearr, nb::handle quadparts, nb::handle ndle) {
    if (asserts_enabled()) assert_valid_fields(qearr, quadparts, ndle);
    // No derived class of arrays, which would have rules of its own.
    nb::setattr(self, "_qearr", qearr.is_none() ? nb::none() : plain_array(import_numpy(), qearr));
    nb::setattr(self, "_quadparts", qearr.is_none() ? quadparts : nb::handle(Py_None));
    nb::setattr(self, "_ndle", ndle);
    return nb::none();
}

/// `cls(qearr=..., quadparts=..., ndle=...)`; the class of this module without the detour of a
/// call.
static nb::object new_mquadexpr(nb::handle cls, nb::handle qearr, nb::handle quadparts,
                                nb::handle ndle) {
    if (!own_class.is(cls))
        return cls("qearr"_a = qearr, "quadparts"_a = quadparts, "ndle"_a = ndle);
    nb::object self = own_class.make();
    init(self, qearr, quadparts, ndle);
    return self;
}

nb::object new_compact(nb::handle cls, nb::handle quadparts, nb::handle ndle) {
    return new_mquadexpr(cls, Py_None, quadparts, ndle);
}

nb::object new_full(nb::handle cls, nb::handle qearr, nb::handle ndle) {
    return new_mquadexpr(cls, qearr, Py_None, ndle);
}

nb::object new_full(nb::handle qearr, nb::handle ndle) {
    nb::object cls = names::MQuadExpr();
    return is_quadexpr(qearr) ? new_full(cls, array_of_one(import_numpy(), qearr), ndle)
                              : new_full(cls, qearr, ndle);
}

static nb::object _is_compact(nb::handle self) {
    bool compact = !self.attr("_quadparts").is_none();
    PY_ASSERT(!self.attr("_ndle").is_none());
    PY_ASSERT(self.attr("_qearr").is_none() == compact);
    PY_ASSERT(!compact || allows_compact(self.attr("_ndle").attr("shape")));
    PY_ASSERT(compact || self.attr("_qearr").attr("shape").equal(self.attr("_ndle").attr("shape")));
    return nb::bool_(compact);
}

static nb::object _allows_compact(nb::handle shape) { return nb::bool_(allows_compact(shape)); }

static nb::object shape(nb::handle self) {
    nb::object result = self.attr("_ndle").attr("shape");
    if (asserts_enabled()) {
        nb::object qearr = self.attr("_qearr");
        PY_ASSERT(qearr.is_none() ? allows_compact(result) : qearr.attr("shape").equal(result));
    }
    return result;
}

static nb::object ndim(nb::handle self) { return self.attr("_ndle").attr("ndim"); }

static nb::object size(nb::handle self) { return self.attr("_ndle").attr("size"); }

/// Appends the product x @ Q @ y. A float64 coo_matrix shares its arrays with the part.
nb::object _add_quadpart(nb::handle self, nb::handle x, nb::handle Q, nb::handle y) {
    if (asserts_enabled()) {
        nb::object of_Q = Q.attr("shape"), of_x = x.attr("shape"), of_y = y.attr("shape");
        PY_ASSERT(nb::len(of_x) == 1);
        PY_ASSERT(nb::len(of_Q) == 2);
        PY_ASSERT(nb::len(of_y) == 1);
        PY_ASSERT(of_Q[0].equal(of_x[0]));
        PY_ASSERT(of_Q[1].equal(of_y[0]));
        PY_ASSERT(size_of(self) > 0);
    }
    nb::object stored = sparse::to_coo(Q, /*copy=*/false);
    parts_of(self).attr("append")(nb::make_tuple(x, stored, y));
    return nb::none();
}

/// Merges all parts into one: with the matrices block by block on the diagonal, the product of the
/// concatenated vectors is the sum of the products. Every reader of the parts does this first, so
/// that additions only append.
nb::object _concat_quadparts(nb::handle self) {
    auto np = import_numpy();
    nb::object parts = parts_of(self);
    if (nb::len(parts) <= 1) return nb::none();
    nb::list xs, matrices, ys;
    for (nb::handle entry : parts) {
        QuadPart part(entry);
        xs.append(nb::getattr(part.x, "_vararr"));
        matrices.append(part.Q);
        ys.append(nb::getattr(part.y, "_vararr"));
    }
    nb::object x = mvar::new_mvar(np.attr("concatenate")(xs));
    nb::object Q = sparse::block_diag(matrices);
    nb::object y = mvar::new_mvar(np.attr("concatenate")(ys));
    self.attr("_quadparts") = nb::list();
    return _add_quadpart(self, x, Q, y);
}

/// The merged part itself, not a copy: callers scale through it. Three times None without parts.
nb::object _extract_xQy(nb::handle self) {
    if (nb::len(parts_of(self)) == 0) return nb::make_tuple(nb::none(), nb::none(), nb::none());
    _concat_quadparts(self);
    return parts_of(self)[0];
}

/// The quadratic part as a scalar expression: the stored entries of Q in their order, neither
/// merged nor dropped where zero. Whole arrays move; nothing runs per term.
nb::object _extract_quadexpr(nb::handle self) {
    if (nb::len(parts_of(self)) == 0) return new_quadexpr();
    _concat_quadparts(self);
    QuadPart part(nb::object(parts_of(self)[0]));
    nb::object coeffs = part.Q.attr("data").attr("tolist")();
    nb::object vars1 = part.x.attr("_vararr")[part.Q.attr("row")].attr("tolist")();
    nb::object vars2 = part.y.attr("_vararr")[part.Q.attr("col")].attr("tolist")();
    return make_quadexpr(nb::cast<nb::list>(coeffs), nb::cast<nb::list>(vars1),
                         nb::cast<nb::list>(vars2));
}

/// A full twin of a compact expression, which keeps its form.
nb::object _to_full(nb::handle self) {
    auto np = import_numpy();
    nb::object qe = _extract_quadexpr(self);
    nb::object qearr = empty_object_array(np, self.attr("shape"));
    qearr[nb::ellipsis()] = qe;
    return new_full(qearr, self.attr("_ndle").attr("copy")());
}

/// Switches a compact expression to the full form in place.
nb::object _convert_to_full(nb::handle self) {
    if (!is_compact(self)) return nb::none();
    nb::object full = _to_full(self);
    self.attr("_quadparts") = nb::none();
    self.attr("_qearr") = nb::getattr(full, "_qearr");
    self.attr("_ndle") = nb::getattr(full, "_ndle");
    return nb::none();
}

/// Merges equal terms, in place.
nb::object _normalize(nb::handle self) {
    constexpr WalkFlags flags = {flag::buffered, {flag::readwrite}};
    self.attr("_ndle").attr("_normalize")();
    if (!is_compact(self)) for_each(flags, self.attr("_qearr"), "_normalize");
    return nb::none();
}

/// Afterwards the term lists of each element of a full expression hold all its terms.
nb::object _flatten(nb::handle self) {
    constexpr WalkFlags flags = {flag::zerosize_ok, {flag::readwrite}};
    if (!is_compact(self)) for_each(flags, self.attr("_qearr"), "_flatten");
    return nb::none();
}

static constexpr const char* kClearDoc = R"(
ROUTINE:
  clear()

PURPOSE:
  Reset this expression to all-zero. The shape stays.

ARGUMENTS:
  None

RETURN VALUE:
  None

EXAMPLE:
  expr.clear()

NOTES:
  Afterwards all entries are constant 0.0. An expression without elements, such as one of shape
  (0, 3, 4), may raise NumPy's ValueError.
)";

static nb::object clear(nb::handle self) {
    self.attr("_ndle").attr("clear")();
    if (is_compact(self))
        self.attr("_quadparts") = nb::list();
    else
        _clear_quad_array(self.attr("_qearr"));
    return nb::none();
}

nb::object _clear_quad_array(nb::handle qearr) {
    constexpr WalkFlags flags = {flag::none, {flag::readwrite}};
    for_each(flags, qearr, "clear");
    return nb::none();
}

void add_form_methods(ClassBody& body) {
    own_class = names::MQuadExpr();
    body.method<&init>("__init__(self, qearr=None, quadparts=None, ndle=None)")
        .property<&shape>("shape", R"(The shape of the expression, as a tuple of ints)")
        .property<&ndim>("ndim", R"(The number of dimensions of this expression)")
        .property<&size>("size", R"(The number of elements in this expression)")
        .property<&_is_compact>("_is_compact")
        .static_method<&_allows_compact>("_allows_compact(shape)")
        .method<&_add_quadpart>("_add_quadpart(self, x, Q, y)")
        .method<&_concat_quadparts>("_concat_quadparts(self)")
        .method<&_extract_xQy>("_extract_xQy(self)")
        .method<&_extract_quadexpr>("_extract_quadexpr(self)")
        .method<&_to_full>("_to_full(self)")
        .method<&_convert_to_full>("_convert_to_full(self)")
        .method<&_flatten>("_flatten(self)")
        .method<&_normalize>("_normalize(self)")
        .method<&clear>("clear(self)", kClearDoc)
        .static_method<&_clear_quad_array>("_clear_quad_array(qearr)");
}

}  // namespace taviropy::mquadexpr
