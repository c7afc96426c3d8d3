// How an MQuadExpr comes into being: zeros, products of variables, scalar and linear expressions,
// and copies. Each builder decides between the compact and the full form.

#include "core_interface/scalars.hpp"
#include "mquadexpr/mquadexpr.hpp"
#include "mvar/mvar.hpp"
#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/object_arrays.hpp"
#include "support/object_product.hpp"
#include "support/operators.hpp"
#include "support/sparse.hpp"

namespace taviropy::mquadexpr {

using namespace nb::literals;

namespace {

bool may_be_compact(nb::handle cls, nb::handle shape) {
    return keeps_compact(cls) && truth(cls.attr("_allows_compact")(shape));
}

/// numpy.prod(shape) == numpy.max(shape): one dimension above 1 at most, or nothing in it at all.
bool flattens_to_vector(nb::handle np, nb::handle shape) {
    return np.attr("prod")(shape).equal(np.attr("max")(shape));
}

}  // namespace

nb::object zeros(nb::handle cls, nb::handle shape) {
    nb::object extents = names::_broadcast_shapes()(shape);
    if (!may_be_compact(cls, extents)) return cls.attr("_zeros_full")(extents);
    nb::object ndle = names::MLinExpr().attr("zeros")(extents);
    return new_compact(cls, nb::list(), ndle);
}

static nb::object _zeros_full(nb::handle cls, nb::handle shape) {
    constexpr WalkFlags flags = {flag::zerosize_ok, {flag::writeonly}};
    auto np = import_numpy();
    nb::object extents = names::_broadcast_shapes()(shape);
    nb::object out = empty_object_array(np, extents);
    GcPause pause;
    walk<1>(flags, {out},
            [](const auto& chunks, Py_ssize_t k) { chunks[0].store(k, new_quadexpr()); });
    return new_full(cls, out, names::MLinExpr().attr("zeros")(extents));
}

static nb::list list_of_one(nb::object item) {
    nb::object list = list_of(1, [&](Py_ssize_t) { return item.release().ptr(); });
    return nb::borrow<nb::list>(list);
}

/// x * y in the full form: one term an element.
static nb::object full_times(nb::handle left, nb::handle right, nb::handle shape) {
    constexpr WalkFlags flags = {flag::reduce_ok | flag::zerosize_ok,
                                 {flag::readwrite, flag::readwrite, flag::writeonly}};
    nb::object xs = left.attr("_vararr"), ys = right.attr("_vararr");
    nb::object qearr = empty_object_array(import_numpy(), shape);
    nb::float_ one(1.0);
    GcPause pause;
    walk<3>(flags, {xs, ys, qearr}, [&](const auto& chunks, Py_ssize_t k) {
        chunks[2].store(k, make_quadexpr(list_of_one(one), list_of_one(chunks[0].element(k)),
                                         list_of_one(chunks[1].element(k))));
    });
    return new_full(qearr, names::MLinExpr().attr("zeros")(shape));
}

static nb::object _from_mvar_times_mvar(nb::handle cls, nb::handle mvar_left, nb::handle mvar_right,
                                        nb::handle force_full) {
    nb::object shape = names::_broadcast_shapes()(nb::getattr(mvar_left, "shape"),
                                                  nb::getattr(mvar_right, "shape"));
    if (!may_be_compact(cls, shape) || truth(force_full))
        return full_times(mvar_left, mvar_right, shape);
    nb::object ndle = names::MLinExpr().attr("zeros")(shape);
    nb::list quadparts;
    if (size_of(ndle) > 0) {
        nb::object Q = sparse::to_coo(sparse::identity(1), /*copy=*/false);
        quadparts.append(nb::make_tuple(mvar::flat(mvar_left), Q, mvar::flat(mvar_right)));
    }
    return new_compact(quadparts, ndle);
}

/// A 0-d full expression; the linear part of a copy of `qe` moves to the linear expression.
nb::object _from_quad_expr(nb::handle cls, nb::handle qe) {
    auto np = import_numpy();
    nb::object ndle = names::MLinExpr().attr("_from_linexpr")(qe.attr("getLinExpr")());
    nb::object quadratic = new_quadexpr(qe);
    quadratic.attr("getLinExpr")().attr("clear")();
    nb::object qearr = np.attr("array")(quadratic, "dtype"_a = "O");
    return new_full(cls, qearr, ndle);
}

/// x @ Q @ y + c @ z + d.
static nb::object _from_quadfun(nb::handle cls, nb::handle x, nb::handle Q, nb::handle y,
                                nb::handle c, nb::handle z, nb::handle d) {
    nb::object left_shape = product_shape(x.attr("shape"), Q.attr("shape"));
    nb::object quad_shape = product_shape(left_shape, y.attr("shape"));
    nb::object mlinexpr = names::MLinExpr();
    nb::object ndle = mlinexpr.attr("zeros")(quad_shape);
    if (!c.is_none()) ndle = ndle + matrix_product(c, z);
    if (!d.is_none()) ndle = ndle + d;
    nb::object shape = names::_broadcast_shapes()(quad_shape, nb::getattr(ndle, "shape"));
    ndle = ndle + mlinexpr.attr("zeros")(shape);  // widens the linear part to the common shape
    bool compact = truth(cls.attr("_keep_compact")) && truth(cls.attr("_allows_compact")(shape));
    return cls.attr(compact ? "_from_quadfun_compact" : "_from_quadfun_full")(x, Q, y, ndle);
}

static nb::object _from_quadfun_compact(nb::handle cls, nb::handle x, nb::handle Q, nb::handle y,
                                        nb::handle ndle) {
    auto np = import_numpy();
    PY_ASSERT(flattens_to_vector(np, x.attr("shape")));
    PY_ASSERT(flattens_to_vector(np, y.attr("shape")));
    nb::object left = mvar::new_mvar(x.attr("_vararr").attr("flatten")());
    nb::object matrix = sparse::to_coo(Q, /*copy=*/true);
    nb::object right = mvar::new_mvar(y.attr("_vararr").attr("flatten")());
    nb::list quadparts;
    quadparts.append(nb::make_tuple(left, matrix, right));
    return new_compact(cls, quadparts, ndle);
}

/// The dense fallback: NumPy's object products, which run through the scalar operators. Adding
/// zeros broadcasts to the shape of `ndle` and gives every element an expression of its own.
static nb::object _from_quadfun_full(nb::handle cls, nb::handle x, nb::handle Q, nb::handle y,
                                     nb::handle ndle) {
    auto np = import_numpy();
    auto sp = import_sparse();
    sparse::check(Q);
    nb::object matrix = nb::borrow(Q);
    if (is_instance(Q, sp.attr("spmatrix"))) matrix = sparse::to_array(Q);
    nb::object row = object_product(np, x.attr("_vararr"), matrix);
    nb::object product = object_product(np, row, y.attr("_vararr"));
    nb::object qearr = np.attr("array")(product) + np.attr("zeros")(nb::getattr(ndle, "shape"));
    return new_full(cls, np.attr("asarray")(qearr), ndle);
}

nb::object _from_mlinexpr(nb::handle cls, nb::handle ndle, nb::handle force_full) {
    nb::object result =
        cls.attr(truth(force_full) ? "_zeros_full" : "zeros")(nb::getattr(ndle, "shape"));
    result += ndle;
    return result;
}

static constexpr const char* kCopyDoc = R"(
ROUTINE:
  copy()

PURPOSE:
  Create a copy of this expression.

ARGUMENTS:
  None

RETURN VALUE:
  A new MQuadExpr object of the same shape. Changing it leaves this expression as it is.

EXAMPLE:
  orig = x @ Q @ x
  copy = orig.copy()
  copy += 2.0

NOTES:
  None
)";

static nb::object _copy_compact(nb::handle self) {
    nb::object quadparts = _copy_quadparts(self);
    return new_compact(quadparts, self.attr("_ndle").attr("copy")());
}

/// The merged part with arrays of its own, in a new list; empty without parts.
nb::object _copy_quadparts(nb::handle self) {
    nb::list copies;
    if (nb::len(parts_of(self)) == 0) return copies;
    _concat_quadparts(self);
    copies.append(QuadPart(nb::object(parts_of(self)[0])).copied());
    return copies;
}

static nb::object _copy_full(nb::handle self) {
    constexpr WalkFlags flags = {
        flag::buffered | flag::zerosize_ok,
        {flag::readwrite | flag::no_broadcast, flag::writeonly | flag::no_broadcast}};
    auto np = import_numpy();
    nb::object ndle = self.attr("_ndle").attr("copy")();
    nb::object qearr = self.attr("_qearr"), copies = empty_object_array(np, self.attr("shape"));
    GcPause pause;
    walk<2>(flags, {qearr, copies}, [](const auto& chunks, Py_ssize_t k) {
        chunks[1].store(k, chunks[0].element(k).attr("copy")());
    });
    return new_full(copies, ndle);
}

static nb::object copy(nb::handle self) {
    return is_compact(self) ? _copy_compact(self) : _copy_full(self);
}

static constexpr const char* kZerosDoc = R"(
ROUTINE:
  zeros(shape)

PURPOSE:
  Construct an all-zero MQuadExpr object of given shape.

ARGUMENTS:
  shape (int or tuple of ints): The shape of the expression; () for a single 0-d element.

RETURN VALUE:
  An MQuadExpr object of that shape, without terms and with the constant 0.0 in every element.

EXAMPLE:
  mqe = tv.MQuadExpr.zeros(3)
  x = model.addMVar(3)
  mqe += 2 * x * x

NOTES:
  A negative extent is a ValueError, a shape of another type a TypeError.
)";

void add_build_methods(ClassBody& body) {
    body.class_method<&zeros>("zeros(cls, shape)", kZerosDoc)
        .class_method<&_zeros_full>("_zeros_full(cls, shape)")
        .class_method<&_from_mvar_times_mvar>(
            "_from_mvar_times_mvar(cls, mvar_left, mvar_right, force_full=False)")
        .class_method<&_from_quad_expr>("_from_quad_expr(cls, qe)")
        .class_method<&_from_quadfun>("_from_quadfun(cls, x, Q, y, c=None, z=None, d=None)")
        .class_method<&_from_quadfun_compact>("_from_quadfun_compact(cls, x, Q, y, ndle)")
        .class_method<&_from_quadfun_full>("_from_quadfun_full(cls, x, Q, y, ndle)")
        .class_method<&_from_mlinexpr>("_from_mlinexpr(cls, ndle, force_full=False)")
        .method<&copy>("copy(self)", kCopyDoc)
        .method<&_copy_compact>("_copy_compact(self)")
        .method<&_copy_full>("_copy_full(self)")
        .method<&_copy_quadparts>("_copy_quadparts(self)");
}

}  // namespace taviropy::mquadexpr
