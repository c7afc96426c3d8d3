#include "support/solution_values.hpp"

#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"
#include "support/object_arrays.hpp"

namespace taviropy {

namespace {

/// What the reader of coefficients and variables says, without its exception: the expression's own
/// method is going to raise it.
bool quietly(bool sound) {
    if (!sound) PyErr_Clear();
    return sound;
}

PyTypeObject* var_type() { return reinterpret_cast<PyTypeObject*>(names::Var().ptr()); }

}  // namespace

SolutionValues::Place SolutionValues::place_of(PyObject* var) {
    auto [entry, is_new] = places_.try_emplace(var, places_.size());
    if (is_new) variables_.append(nb::handle(var));
    return entry->second;
}

bool SolutionValues::note_linear(PyObject* linear) {
    if (!is_plain_linexpr(linear)) return false;
    auto* le = reinterpret_cast<LinExprObject*>(linear);
    if (!quietly(check_lengths("LinExpr", le->coeffs, le->vars))) return false;
    PyTypeObject* type = var_type();
    for (Py_ssize_t k = 0; k < PyList_GET_SIZE(le->coeffs); ++k) {
        PyObject* var = PyList_GET_ITEM(le->vars, k);
        double coeff;
        if (!quietly(read_coefficient(PyList_GET_ITEM(le->coeffs, k), coeff) &&
                     check_variable(var, type)))
            return false;
        linear_.push_back({coeff, place_of(var)});
    }
    return true;
}

bool SolutionValues::note_quadratic(QuadExprObject* qe) {
    if (!quietly(check_lengths("QuadExpr", qe->coeffs, qe->vars1, qe->vars2))) return false;
    PyTypeObject* type = var_type();
    for (Py_ssize_t k = 0; k < PyList_GET_SIZE(qe->coeffs); ++k) {
        PyObject *var1 = PyList_GET_ITEM(qe->vars1, k), *var2 = PyList_GET_ITEM(qe->vars2, k);
        double coeff;
        if (!quietly(read_coefficient(PyList_GET_ITEM(qe->coeffs, k), coeff) &&
                     check_variable(var1, type) && check_variable(var2, type)))
            return false;
        quadratic_.push_back({coeff, place_of(var1), place_of(var2)});
    }
    return true;
}

bool SolutionValues::note(PyObject* element) {
    PyObject* linear = element;
    if (element && Py_TYPE(element) == quadexpr_type()) {
        auto* qe = reinterpret_cast<QuadExprObject*>(element);
        if (qe->cont_ref != Py_None || !note_quadratic(qe)) return false;
        linear = qe->linear;
    }
    if (!note_linear(linear)) return false;
    const double constant = reinterpret_cast<LinExprObject*>(linear)->constant;
    expressions_.push_back({constant, linear_.size(), quadratic_.size()});
    return true;
}

bool SolutionValues::is_of_one_model() const {
    nb::object model;
    for (nb::handle variable : variables_) {
        nb::object own = variable.attr("_cmodel");
        if (!model.is_valid()) model = own;
        if (!own.is(model)) return false;
    }
    return true;
}

bool SolutionValues::read() {
    if (places_.empty()) return true;
    if (!is_of_one_model()) return false;
    nb::object np = import_numpy();
    nb::object x = names::MVar().attr("fromlist")(variables_);
    nb::object X = np.attr("ascontiguousarray")(nb::getattr(x, "X"), nb::getattr(np, "float64"));
    ArrayBuffer buffer;
    if (!buffer.acquire(X, PyBUF_C_CONTIGUOUS)) throw nb::python_error();
    auto* data = static_cast<const double*>(buffer->buf);
    values_.assign(data, data + buffer->len / buffer->itemsize);
    if (values_.size() != places_.size())
        raise(PyExc_RuntimeError, std::to_string(places_.size()) + " variables gave " +
                                      std::to_string(values_.size()) + " values");
    return true;
}

double SolutionValues::value(std::size_t number) const {
    const Expression& expression = expressions_[number];
    std::size_t k = number ? expressions_[number - 1].linear_end : 0;
    double value = expression.constant;
    for (; k < expression.linear_end; ++k) value += linear_[k].coeff * values_[linear_[k].var];
    k = number ? expressions_[number - 1].quadratic_end : 0;
    for (; k < expression.quadratic_end; ++k) {
        const Quadratic& term = quadratic_[k];
        value += term.coeff * values_[term.var1] * values_[term.var2];
    }
    return value;
}

/// Notes all elements; each gets its number in the place of its value. False where one can't be.
static bool note_all(SolutionValues& solution, nb::handle elements, nb::handle numbers) {
    constexpr WalkFlags flags = {
        flag::buffered | flag::zerosize_ok, {flag::readonly, flag::writeonly}, "Od"};
    bool noted = true;
    walk<2>(flags, {elements, numbers}, [&](const auto& chunks, Py_ssize_t k) {
        if (!noted) return;
        chunks[1].number(k) = static_cast<double>(solution.size());
        noted = solution.note(chunks[0][k]);
    });
    return noted;
}

nb::object values_of_elements(nb::handle np, nb::handle elements) {
    constexpr WalkFlags number_flags = {flag::buffered | flag::zerosize_ok, {flag::readwrite}, "d"};
    nb::object result = np.attr("empty")(nb::getattr(elements, "shape"));
    SolutionValues solution;
    if (note_all(solution, elements, result) && solution.read()) {
        walk<1>(number_flags, {result}, [&](const auto& chunks, Py_ssize_t k) {
            double& slot = chunks[0].number(k);
            slot = solution.value(static_cast<std::size_t>(slot));
        });
        return result;
    }
    return doubles_of(np, elements,
                      [](nb::object element) { return as_double(element.attr("getValue")()); });
}

}  // namespace taviropy
