// How an MLinExpr comes into being: zeros, affine expressions, variables, scalar expressions and
// copies. Products of a matrix and variables stand in build_matmul.cpp.

#include "core_interface/scalars.hpp"
#include "mlinexpr/mlinexpr.hpp"
#include "mvar/mvar.hpp"
#include "support/imports.hpp"
#include "support/numbers.hpp"
#include "support/object_arrays.hpp"
#include "support/operators.hpp"
#include "support/sparse.hpp"
#include "support/vectorize.hpp"

namespace taviropy::mlinexpr {

using namespace nb::literals;

// ---- Zeros ----------------------------------------------------------------------------------

static constexpr const char* kZerosDoc = R"(ROUTINE:
    zeros(shape)

PURPOSE:
    Construct an all-zero MLinExpr of the given shape, to which terms are
    then added.

ARGUMENTS:
    shape (int or tuple of ints): The shape of the expression.

RETURN VALUE:
    A new MLinExpr of that shape, with no terms and the constant 0.0 in each
    element.

EXAMPLE:
    mle = tv.MLinExpr.zeros(3)
    mle += 2 * x

NOTES:
    A negative extent is a ValueError, a shape of another type a TypeError.
)";

nb::object zeros(nb::handle cls, nb::handle shape) {
    nb::object np = import_numpy();
    nb::object full_shape = names::_broadcast_shapes()(shape);
    if (keeps_compact(cls) && allows_compact(full_shape))
        return new_compact(cls, nb::list(), np.attr("zeros")(full_shape));
    return _zeros_full(cls, full_shape);
}

constexpr WalkFlags kZerosFlags = {flag::zerosize_ok, {flag::writeonly}};

nb::object _zeros_full(nb::handle cls, nb::handle shape) {
    nb::object np = import_numpy();
    nb::object out = empty_object_array(np, names::_broadcast_shapes()(shape));
    GcPause pause;
    walk<1>(kZerosFlags, {out}, [](const auto& chunks, Py_ssize_t k) {
        chunks[0].store(k, make_linexpr(0.0, nb::list(), nb::list()));
    });
    return new_full(cls, out);
}

// ---- Affine expressions ---------------------------------------------------------------------

/// The constant of an affine expression, an array of the expression's own.
static nb::object own_constant(nb::handle np, nb::handle b, nb::handle shape_Ax) {
    if (b.is_none() && !shape_Ax.is_none()) return np.attr("zeros")(shape_Ax);
    nb::object value = b.is_none() ? nb::object(nb::float_(0.0)) : nb::borrow(b);
    refuse_complex(value);
    nb::object own =
        np.attr("array")(value, "copy"_a = true, "dtype"_a = nb::getattr(np, "float64"));
    if (shape_Ax.is_none()) return own;
    nb::object total_shape = names::_broadcast_shapes()(shape_Ax, nb::getattr(own, "shape"));
    if (!allows_compact(total_shape))
        raise(PyExc_ValueError, "Compact state cannot have shape " + text_of(total_shape));
    return np.attr("broadcast_to")(own, total_shape).attr("copy")();
}

/// What a 1 by 1 matrix stands for next to a block of variables that lies along `axis`: a multiple
/// of the identity. Any other product is `A` itself.
static nb::object widened(nb::object A, nb::handle x_shape, int axis) {
    if (nb::len(x_shape) != 2) return A;
    Py_ssize_t n = nb::cast<Py_ssize_t>(nb::object(x_shape[axis]));
    if (n <= 1) return A;
    PY_ASSERT(A.attr("shape").equal(nb::make_tuple(1, 1)));
    nb::object factor = A[nb::make_tuple(0, 0)];
    return sparse::scaled_identity(n, nb::cast<double>(nb::float_(factor)));
}

void refuse_vector(nb::handle csr) {
    nb::object shape = csr.attr("shape");
    if (nb::len(shape) != 2)
        raise(PyExc_IndexError, "a sparse array of shape " + text_of(shape) +
                                    " has no columns to match with variables: reshape it to two "
                                    "dimensions, or multiply by its toarray()");
}

nb::object compact_product(nb::handle cls, nb::handle A, nb::handle x, nb::handle x_shape,
                           Side side, nb::handle b) {
    const bool right = side == Side::right;
    if (!allows_compact(x_shape))
        raise(PyExc_ValueError, std::string(right ? "Right" : "Left") + " variable's shape " +
                                    text_of(x_shape) + " is not compact");
    nb::object flat = mvar::flat(x);
    nb::object rows = right ? sparse::to_csr(A, true) : sparse::transposed_to_csr(A);
    if (!is_ndarray(import_numpy(), A)) refuse_vector(rows);
    nb::list parts;
    parts.append(nb::make_tuple(widened(rows, x_shape, right ? 1 : 0), flat));
    return new_compact(cls, parts, b);
}

nb::object _from_compact_affine_expr(nb::handle cls, nb::handle x_left, nb::handle A,
                                     nb::handle x_right, nb::handle b) {
    nb::object np = import_numpy();
    const bool left = !x_left.is_none(), right = !x_right.is_none();
    if (left && right) raise(PyExc_ValueError, "Matmul expression has too many variables");
    if (!left && !right) {
        if (!A.is_none()) raise(PyExc_ValueError, "Matmul expression has no variables");
        return new_compact(cls, nb::list(), own_constant(np, b, nb::none()));
    }
    nb::handle x = right ? x_right : x_left;
    nb::object x_shape = x.attr("shape"), A_shape = A.attr("shape");
    nb::object shape_Ax = product_shape(right ? A_shape : x_shape, right ? x_shape : A_shape);
    nb::object own = own_constant(np, b, shape_Ax);
    return compact_product(cls, A, x, x_shape, right ? Side::right : Side::left, own);
}

// ---- Variables ------------------------------------------------------------------------------

nb::object _from_mvar(nb::handle cls, nb::handle fromobj, nb::handle force_full) {
    if (keeps_compact(cls) && allows_compact(fromobj.attr("shape")) && !truth(force_full))
        return _from_mvar_compact(cls, fromobj);
    return _from_mvar_full(cls, fromobj);
}

// Whether the variables stand in a row, in a column or alone, each row of the matrix picks one of
// them in C order. So the matrix is the identity, and the shape lives in the constant.
nb::object _from_mvar_compact(nb::handle cls, nb::handle x) {
    nb::object shape = x.attr("shape");
    nb::object vararr = x.attr("_vararr");
    Py_ssize_t size = size_of(vararr);
    if (size == 0) return zeros(shape);
    if (!allows_compact(shape)) fail_assertion();
    nb::list parts;
    parts.append(nb::make_tuple(sparse::identity(size), mvar::flat(x)));
    return new_compact(cls, parts, import_numpy().attr("zeros")(shape));
}

constexpr WalkFlags kFromMvarFlags = {flag::zerosize_ok, {flag::readwrite, flag::writeonly}};

/// LinExpr(1.0, variable)
static nb::object single_term(nb::handle var_type, nb::handle variable) {
    if (!variable.type().is(var_type)) return new_linexpr(1.0, variable);
    nb::list coeffs, vars;
    coeffs.append(1.0);
    vars.append(variable);
    return make_linexpr(0.0, coeffs, vars);
}

nb::object _from_mvar_full(nb::handle cls, nb::handle fromobj) {
    nb::object np = import_numpy();
    nb::object out = empty_object_array(np, fromobj.attr("shape"));
    nb::object vararr = fromobj.attr("_vararr"), var_type = names::Var();
    GcPause pause;
    walk<2>(kFromMvarFlags, {vararr, out}, [&](const auto& chunks, Py_ssize_t k) {
        chunks[1].store(k, single_term(var_type, chunks[0].element(k)));
    });
    return new_full(cls, out);
}

// ---- Scalar objects -------------------------------------------------------------------------

nb::object _from_var(nb::handle cls, nb::handle fromobj) {
    nb::object np = import_numpy();
    if (!is_a(fromobj, names::Var)) raise(PyExc_Exception, "Wrong type");
    return new_full(cls, array_of_one(np, new_linexpr(fromobj)));
}

nb::object _from_linexpr(nb::handle cls, nb::handle fromobj) {
    nb::object np = import_numpy();
    if (!is_linexpr(fromobj)) raise(PyExc_Exception, "Wrong type");
    return new_full(cls, array_of_one(np, new_linexpr(fromobj)));
}

static nb::object _from_linexprs(nb::handle cls, nb::handle les) {
    nb::object np = import_numpy();
    sparse::check(les);  // SciPy walks a matrix that is iterated over
    nb::object objects = np.attr("array")(nb::list(les), "dtype"_a = "O");
    refuse_empty(objects);
    auto convert = [](nb::handle object) {
        if (is_a(object, names::MLinExpr)) return nb::object(object.attr("item")());
        return new_linexpr(object);
    };
    return new_full(cls, vectorize(np, convert, objects));
}

// ---- Copying --------------------------------------------------------------------------------

static constexpr const char* kCopyDoc = R"(ROUTINE:
    copy()

PURPOSE:
    Copy an expression.

ARGUMENTS:
    None.

RETURN VALUE:
    A new MLinExpr of the same shape; changing it leaves this expression as it is.

EXAMPLE:
    other = mle.copy()
    other += 1
)";

static nb::object _copy_compact(nb::handle self) {
    nb::list parts;
    Part part = merged_part(self);
    if (part.A.is_valid())
        parts.append(nb::make_tuple(sparse::copy(part.A), part.x.attr("copy")()));
    return new_compact(parts, const_of(self).attr("copy")());
}

constexpr WalkFlags kCopyFlags = {
    flag::buffered | flag::zerosize_ok,
    {flag::readwrite | flag::no_broadcast, flag::writeonly | flag::no_broadcast}};

static nb::object copy_element(nb::handle element) {
    LinExprObject* le = as_linexpr(element.ptr());
    if (!is_plain_linexpr(element.ptr())) return element.attr("copy")();
    return make_linexpr(le->constant, copy_list(le->coeffs), copy_list(le->vars));
}

static nb::object _copy_full(nb::handle self) {
    nb::object np = import_numpy();
    _convert_to_full(self);
    nb::object learr = learr_of(self);
    nb::object copied = empty_object_array(np, learr.attr("shape"));
    GcPause pause;
    walk<2>(kCopyFlags, {learr, copied}, [](const auto& chunks, Py_ssize_t k) {
        chunks[1].store(k, copy_element(chunks[0].element(k)));
    });
    return new_full(copied);
}

nb::object copy(nb::handle self) {
    return is_compact(self) && keeps_compact(self) ? _copy_compact(self) : _copy_full(self);
}

nb::object copy_of(nb::handle self) {
    return self.type().is(names::MLinExpr()) ? copy(self) : nb::object(self.attr("copy")());
}

// ---- The table ------------------------------------------------------------------------------

void add_build_methods(ClassBody& body) {
    body.class_method<static_cast<nb::object (*)(nb::handle, nb::handle)>(&zeros)>(
            "zeros(cls, shape)", kZerosDoc)
        .class_method<&_zeros_full>("_zeros_full(cls, shape)",
                                    R"(An all-zero expression in the full form.)")
        .class_method<&_from_compact_affine_expr>(
            "_from_compact_affine_expr(cls, x_left=None, A=None, x_right=None, b=None)",
            R"(The compact expression x_left @ A + b, A @ x_right + b or b, of copies of A and b.)")
        .class_method<&_from_mvar>("_from_mvar(cls, fromobj, force_full=False)",
                                   R"(An expression with one term for each variable of an MVar.)")
        .class_method<&_from_mvar_compact>("_from_mvar_compact(cls, x)",
                                           R"(The same in the compact form.)")
        .class_method<&_from_mvar_full>("_from_mvar_full(cls, fromobj)",
                                        R"(The same in the full form.)")
        .class_method<&_from_var>("_from_var(cls, fromobj)",
                                  R"(A 0-d expression of a Var; any other type is an Exception.)")
        .class_method<&_from_linexpr>(
            "_from_linexpr(cls, fromobj)",
            R"(A 0-d expression of a copy of a LinExpr; any other type is an Exception.)")
        .class_method<&_from_linexprs>(
            "_from_linexprs(cls, les)",
            R"(An expression of copies of scalar expressions, MLinExpr of size 1 among them, in the
shape that NumPy gives to the sequence.)")
        .method<&copy>("copy(self)", kCopyDoc)
        .method<&_copy_compact>("_copy_compact(self)")
        .method<&_copy_full>(
            "_copy_full(self)",
            R"(Copies element by element; converts this expression to the full form.)");
}

}  // namespace taviropy::mlinexpr
