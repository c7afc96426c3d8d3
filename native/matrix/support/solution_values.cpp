#include "support/solution_values.hpp"

#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"
#include "support/object_arrays.hpp"

namespace taviropy {

bool SolutionValues::note_variables(PyObject* vars, PyObject* coeffs) {
    if (PyList_GET_SIZE(vars) != PyList_GET_SIZE(coeffs)) return false;
    for (Py_ssize_t k = 0; k < PyList_GET_SIZE(vars); ++k) {
        nb::object variable = nb::borrow(PyList_GET_ITEM(vars, k));
        if (!places_.try_emplace(variable.ptr(), places_.size()).second) continue;
        variables_.append(variable);
        nb::object model = variable.attr("_cmodel");
        if (!model_.is_valid()) model_ = model;
        if (!model.is(model_)) return false;
    }
    return true;
}

bool SolutionValues::note_linear(PyObject* linear) {
    if (!is_plain_linexpr(linear)) return false;
    auto* le = reinterpret_cast<LinExprObject*>(linear);
    return note_variables(le->vars, le->coeffs);
}

bool SolutionValues::note(PyObject* element) {
    if (!element || Py_TYPE(element) != quadexpr_type()) return note_linear(element);
    auto* qe = reinterpret_cast<QuadExprObject*>(element);
    return qe->cont_ref == Py_None && note_linear(qe->linear) &&
           note_variables(qe->vars1, qe->coeffs) && note_variables(qe->vars2, qe->coeffs);
}

void SolutionValues::read() {
    if (places_.empty()) return;
    nb::object np = import_numpy();
    nb::object x = names::MVar().attr("fromlist")(variables_);
    nb::object X = np.attr("ascontiguousarray")(nb::getattr(x, "X"), nb::getattr(np, "float64"));
    ArrayBuffer buffer;
    if (!buffer.acquire(X, PyBUF_C_CONTIGUOUS)) throw nb::python_error();
    auto* data = static_cast<const double*>(buffer->buf);
    values_.assign(data, data + places_.size());
}

double SolutionValues::value_of(PyObject* vars, Py_ssize_t k) const {
    auto found = k < PyList_GET_SIZE(vars) ? places_.find(PyList_GET_ITEM(vars, k)) : places_.end();
    if (found == places_.end())
        raise(PyExc_RuntimeError, "an expression has changed while its value was computed");
    return values_[found->second];
}

double SolutionValues::evaluate_linear(LinExprObject* le) const {
    double value = le->constant;
    for (Py_ssize_t k = 0; k < PyList_GET_SIZE(le->coeffs); ++k)
        value += as_double(PyList_GET_ITEM(le->coeffs, k)) * value_of(le->vars, k);
    return value;
}

double SolutionValues::evaluate(PyObject* element) const {
    if (is_linexpr(element)) return evaluate_linear(as_linexpr(element));
    QuadExprObject* qe = as_quadexpr(element);
    double value = evaluate_linear(as_linexpr(qe->linear));
    for (Py_ssize_t k = 0; k < PyList_GET_SIZE(qe->coeffs); ++k) {
        double coefficient = as_double(PyList_GET_ITEM(qe->coeffs, k));
        value += coefficient * value_of(qe->vars1, k) * value_of(qe->vars2, k);
    }
    return value;
}

nb::object values_of_elements(nb::handle np, nb::handle elements) {
    static const WalkFlags note_flags = {
        "refs_ok external_loop buffered zerosize_ok", {"readonly"}, "O"};
    static const WalkFlags value_flags = {
        "refs_ok external_loop buffered zerosize_ok", {"readonly", "writeonly"}, "Od"};
    SolutionValues solution;
    bool noted = true;
    walk<1>(note_flags, {elements}, [&](const auto& chunks, Py_ssize_t size) {
        for (Py_ssize_t k = 0; noted && k < size; ++k) noted = solution.note(chunks[0][k]);
    });
    if (noted) solution.read();
    nb::object result = np.attr("empty")(nb::getattr(elements, "shape"));
    walk<2>(value_flags, {elements, result}, [&](const auto& chunks, Py_ssize_t size) {
        for (Py_ssize_t k = 0; k < size; ++k) {
            nb::object element = chunks[0].element(k);
            chunks[1].number(k) =
                noted ? solution.evaluate(element.ptr()) : as_double(element.attr("getValue")());
        }
    });
    return result;
}

}  // namespace taviropy
