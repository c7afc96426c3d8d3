#include "support/numbers.hpp"

#include <cmath>

#include "support/errors.hpp"
#include "support/names.hpp"
#include "support/object_arrays.hpp"

namespace taviropy {

namespace {

nb::object number_class(const char* name) { return nb::module_::import_("numbers").attr(name); }

[[noreturn]] void refuse_factors() {
    raise_taviro_error(names::TVO().attr("ERROR_INVALID_ARGUMENT"),
                       "Multiplier is infinite or NaN");
}

}  // namespace

bool is_complex(nb::handle number) {
    if (PyFloat_Check(number.ptr()) || PyLong_Check(number.ptr())) return false;
    return PyComplex_Check(number.ptr()) || (is_instance(number, number_class("Complex")) &&
                                             !is_instance(number, number_class("Real")));
}

nb::object as_float(nb::handle object) { return checked(PyNumber_Float(object.ptr())); }

nb::object real_float(nb::handle number) {
    if (is_complex(number))
        raise(PyExc_TypeError,
              std::string("must be real number, not ") + text_of(number.type().attr("__name__")));
    return as_float(number);
}

nb::object negated(nb::handle operand) {
    nb::float_ minus_one(-1.0);
    try {
        return minus_one * operand;
    } catch (const nb::python_error& error) {
        if (!error.matches(PyExc_TypeError) || !is_scalar(operand) || is_complex(operand)) throw;
    }
    return minus_one * as_float(operand);
}

bool is_exact(nb::handle np, nb::handle array) { return array.type().is(np.attr("ndarray")); }

nb::object plain_array(nb::handle np, nb::handle array) {
    return is_exact(np, array) ? nb::borrow(array) : np.attr("asarray")(array);
}

nb::object number_array(nb::handle np, nb::handle array) {
    nb::object plain = plain_array(np, array);
    ArrayBuffer view;
    const bool long_doubles = view.acquire(plain, PyBUF_STRIDES | PyBUF_FORMAT) && view.holds('g');
    view.release();
    return long_doubles ? plain.attr("astype")(nb::getattr(np, "float64")) : plain;
}

void refuse_complex(nb::handle array) {
    ArrayBuffer view;
    if (view.acquire(array, PyBUF_STRIDES | PyBUF_FORMAT) && view->format[0] != 'Z') return;
    nb::object dtype = nb::getattr(array, "dtype", nb::none());
    if (!dtype.is_none() && text_of(dtype.attr("kind")) == "c")
        raise(PyExc_TypeError, "an expression takes real numbers, not of dtype " + text_of(dtype));
}

void refuse_masked(nb::handle np, nb::handle array) {
    if (is_exact(np, array)) return;
    nb::object ma = np.attr("ma");
    if (!is_instance(array, ma.attr("MaskedArray")) || !truth(array.attr("size"))) return;
    if (truth(np.attr("all")(ma.attr("getmaskarray")(array)))) refuse_factors();
}

void refuse_infinite(nb::handle np, nb::handle array) {
    ArrayBuffer view;
    if (!is_exact(np, array) || !view.acquire(array, PyBUF_C_CONTIGUOUS | PyBUF_FORMAT) ||
        !view.holds('d')) {
        if (!truth(np.attr("all")(np.attr("isfinite")(array)))) refuse_factors();
        return;
    }
    const auto* values = static_cast<const double*>(view->buf);
    const Py_ssize_t size = view->len / view->itemsize;
    for (Py_ssize_t k = 0; k < size; ++k)
        if (!std::isfinite(values[k])) refuse_factors();
}

}  // namespace taviropy
