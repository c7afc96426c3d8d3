#include "terms.hpp"

#include <vector>

namespace taviropy {

namespace {

struct Extension {
    PyObject* list;
    PyObject* items;  ///< a list, perhaps the same one
};

/// Appends to all the lists, or to none of them.
template <std::size_t N>
void extend_lists(const Extension (&extensions)[N]) {
    Py_ssize_t old_size = PyList_GET_SIZE(extensions[0].list);
    for (std::size_t k = 0; k < N; ++k) {
        PyObject* list = extensions[k].list;
        if (PyList_SetSlice(list, old_size, old_size, extensions[k].items) == 0) continue;
        PyObject *type, *value, *traceback;
        PyErr_Fetch(&type, &value, &traceback);
        while (k-- > 0) PyList_SetSlice(extensions[k].list, old_size, PY_SSIZE_T_MAX, nullptr);
        PyErr_Restore(type, value, traceback);
        throw PythonError();
    }
}

/// Appends one term, or nothing.
void append_term(LinExprObject* linexpr, Ref coeff, HandleObject* var) {
    check(PyList_Append(linexpr->coeffs, coeff.get()));
    if (PyList_Append(linexpr->vars, as_object(var)) == 0) return;
    PyList_SetSlice(linexpr->coeffs, PyList_GET_SIZE(linexpr->vars), PY_SSIZE_T_MAX, nullptr);
    throw PythonError();
}

/// The scaled coefficients of a view as a list: the expression's own list where nothing changes.
Ref coefficient_list(PyObject* own_list, PyObject* const* coeffs, Py_ssize_t size, double factor) {
    if (factor == 1.0 && own_list) {
        for (Py_ssize_t k = 0; k < size; ++k) coefficient(coeffs[k]);
        return borrow(own_list);
    }
    ListBuilder list(size);
    list.append_coefficients(coeffs, size, factor);
    return list.finish();
}

Ref variable_list(PyObject* own_list, PyObject* const* vars, Py_ssize_t size) {
    if (own_list) {
        for (Py_ssize_t k = 0; k < size; ++k) variable(vars[k]);
        return borrow(own_list);
    }
    ListBuilder list(size);
    list.append_variables(vars, size);
    return list.finish();
}

Ref scaled_list(PyObject* list, double factor) {
    Py_ssize_t size = PyList_GET_SIZE(list);
    ListBuilder scaled(size);
    scaled.append_coefficients(PySequence_Fast_ITEMS(list), size, factor);
    return scaled.finish();
}

/// Replaces a field and gives what it held: to be dropped when all is done, since the finalizer of
/// an old item may be the user's and may change, or drop, the expression.
[[nodiscard]] Ref replace(PyObject*& field, Ref value) {
    return Ref(std::exchange(field, value.release()));
}

/// An unordered pair of elements; for a single one the second half is empty.
struct TermKey {
    const HandleObject* first;
    const HandleObject* second;

    static bool before(const HandleObject* a, const HandleObject* b) {
        return a->model != b->model ? a->model < b->model : a->id < b->id;
    }
    static TermKey of(const HandleObject* a) { return {a, nullptr}; }
    static TermKey of(const HandleObject* a, const HandleObject* b) {
        return before(b, a) ? TermKey{b, a} : TermKey{a, b};
    }
    bool operator==(const TermKey& other) const {
        return same_element(first, other.first) && (!second || same_element(second, other.second));
    }
    std::size_t hash() const {
        std::size_t value = mix(reinterpret_cast<std::uintptr_t>(first->model), first->id);
        return second ? mix(value, second->id) : value;
    }
    static std::size_t mix(std::size_t value, int32_t id) {
        value = (value ^ static_cast<uint32_t>(id)) * 0x9E3779B97F4A7C15ull;
        return value ^ (value >> 29);
    }
};

/// The distinct terms of an expression in the order of first appearance, with summed coefficients.
class MergedTerms {
  public:
    explicit MergedTerms(Py_ssize_t terms) {
        std::size_t slots = 8;
        while (slots < 2 * static_cast<std::size_t>(terms)) slots *= 2;
        slots_.assign(slots, -1);
        sums.reserve(terms);
        origins.reserve(terms);
        keys_.reserve(terms);
    }

    void add(Py_ssize_t term, TermKey key, double value) {
        std::size_t mask = slots_.size() - 1, at = key.hash() & mask;
        while (slots_[at] >= 0 && !(keys_[slots_[at]] == key)) at = (at + 1) & mask;
        if (slots_[at] >= 0) {
            sums[slots_[at]] += value;
            return;
        }
        slots_[at] = static_cast<Py_ssize_t>(sums.size());
        sums.push_back(value);
        origins.push_back(term);
        keys_.push_back(key);
    }

    Ref coefficients() const {
        ListBuilder list(static_cast<Py_ssize_t>(sums.size()));
        for (double sum : sums) list.append(float_object(sum));
        return list.finish();
    }
    Ref first_of(PyObject* const* vars) const {
        ListBuilder list(static_cast<Py_ssize_t>(origins.size()));
        for (Py_ssize_t term : origins) list.append(borrow(vars[term]));
        return list.finish();
    }

    std::vector<double> sums;
    std::vector<Py_ssize_t> origins;  ///< where each distinct term appeared first

  private:
    std::vector<Py_ssize_t> slots_;
    std::vector<TermKey> keys_;
};

/// Merges the equal terms of lists of one length, by their one or two variables.
template <class... Fields>
void merge_terms(PyObject*& coeffs, Fields&... vars) {
    const Py_ssize_t size = PyList_GET_SIZE(coeffs);
    MergedTerms merged(size);
    for (Py_ssize_t k = 0; k < size; ++k)
        merged.add(k, TermKey::of(variable(PyList_GET_ITEM(vars, k))...),
                   coefficient(PyList_GET_ITEM(coeffs, k)));
    if (static_cast<Py_ssize_t>(merged.sums.size()) == size) return;
    Ref made[] = {merged.coefficients(), merged.first_of(PySequence_Fast_ITEMS(vars))...};
    PyObject** fields[] = {&coeffs, &vars...};
    Ref old[std::size(made)];
    for (std::size_t k = 0; k < std::size(made); ++k)
        old[k] = replace(*fields[k], std::move(made[k]));
}

}  // namespace

Ref scaled_linexpr(const LinearView& view, double factor) {
    ListBuilder coeffs(view.size), vars(view.size);
    coeffs.append_coefficients(view.coeffs, view.size, factor);
    vars.append_variables(view.vars, view.size);
    return new_linexpr(factor * view.constant, coeffs.finish(), vars.finish());
}

Ref linear_sum(const LinearView& left, const LinearView& right, double factor) {
    ListBuilder coeffs(left.size + right.size), vars(left.size + right.size);
    coeffs.append_coefficients(left.coeffs, left.size, 1.0);
    coeffs.append_coefficients(right.coeffs, right.size, factor);
    vars.append_variables(left.vars, left.size);
    vars.append_variables(right.vars, right.size);
    return new_linexpr(left.constant + factor * right.constant, coeffs.finish(), vars.finish());
}

Ref linear_product(const LinearView& left, const LinearView& right) {
    Py_ssize_t linear_size =
        (right.constant != 0.0 ? left.size : 0) + (left.constant != 0.0 ? right.size : 0);
    ListBuilder linear_coeffs(linear_size), linear_vars(linear_size);
    if (right.constant != 0.0) {
        linear_coeffs.append_coefficients(left.coeffs, left.size, right.constant);
        linear_vars.append_variables(left.vars, left.size);
    }
    if (left.constant != 0.0) {
        linear_coeffs.append_coefficients(right.coeffs, right.size, left.constant);
        linear_vars.append_variables(right.vars, right.size);
    }
    if (right.size && left.size > PY_SSIZE_T_MAX / right.size) throw std::bad_alloc();
    Py_ssize_t size = left.size * right.size;
    ListBuilder coeffs(size), vars1(size), vars2(size);
    for (Py_ssize_t i = 0; i < left.size; ++i) {
        coeffs.append_coefficients(right.coeffs, right.size, coefficient(left.coeffs[i]));
        PyObject* outer = as_object(variable(left.vars[i]));
        for (Py_ssize_t j = 0; j < right.size; ++j) vars1.append(borrow(outer));
        vars2.append_variables(right.vars, right.size);
    }
    Ref linear =
        new_linexpr(left.constant * right.constant, linear_coeffs.finish(), linear_vars.finish());
    return new_quadexpr(std::move(linear), coeffs.finish(), vars1.finish(), vars2.finish());
}

Ref scaled_quadexpr(QuadExprObject* quadexpr, double factor) {
    QuadraticView view = view_of(quadexpr);
    ListBuilder coeffs(view.size), vars1(view.size), vars2(view.size);
    coeffs.append_coefficients(view.coeffs, view.size, factor);
    vars1.append_variables(view.vars1, view.size);
    vars2.append_variables(view.vars2, view.size);
    Ref linear = scaled_linexpr(linear_view(linear_part(quadexpr)), factor);
    return new_quadexpr(std::move(linear), coeffs.finish(), vars1.finish(), vars2.finish());
}

Ref quadratic_sum(const Operand& left, const Operand& right, double factor) {
    Ref sum = left.kind == OperandKind::quadratic
                  ? scaled_quadexpr(as_quadexpr(left.object), 1.0)
                  : new_quadexpr(scaled_linexpr(linear_view(left), 1.0), empty_list(), empty_list(),
                                 empty_list());
    add_to(as_quadexpr(sum.get()), right, factor);
    return sum;
}

void add_to(LinExprObject* linexpr, const Operand& operand, double factor) {
    LinearView view = linear_view(operand);
    linear_view(linexpr);  // refuses lists that don't match
    if (view.size == 1) {
        append_term(linexpr, scaled_coefficient(view.coeffs[0], factor), variable(view.vars[0]));
    } else if (view.size > 0) {
        bool is_linear = operand.kind == OperandKind::linear;
        LinExprObject* other = is_linear ? as_linexpr(operand.object) : nullptr;
        Ref coeffs =
            coefficient_list(other ? other->coeffs : nullptr, view.coeffs, view.size, factor);
        Ref vars = variable_list(other ? other->vars : nullptr, view.vars, view.size);
        extend_lists({{linexpr->coeffs, coeffs.get()}, {linexpr->vars, vars.get()}});
    }
    linexpr->constant += factor * view.constant;
}

void add_to(QuadExprObject* quadexpr, const Operand& operand, double factor) {
    if (operand.kind != OperandKind::quadratic)
        return add_to(linear_part(quadexpr), operand, factor);
    view_of(quadexpr);
    QuadExprObject* other = as_quadexpr(operand.object);
    QuadraticView view = view_of(other);
    Ref coeffs = coefficient_list(other->coeffs, view.coeffs, view.size, factor);
    Ref vars1 = variable_list(other->vars1, view.vars1, view.size);
    Ref vars2 = variable_list(other->vars2, view.vars2, view.size);
    // The linear part comes first: it is what may still be refused.
    add_to(linear_part(quadexpr), {OperandKind::linear, other->linear, 0.0}, factor);
    extend_lists({{quadexpr->coeffs, coeffs.get()},
                  {quadexpr->vars1, vars1.get()},
                  {quadexpr->vars2, vars2.get()}});
}

void scale(LinExprObject* linexpr, double factor) {
    Ref old = replace(linexpr->coeffs, scaled_list(linexpr->coeffs, factor));
    linexpr->constant *= factor;
}

void scale(QuadExprObject* quadexpr, double factor) {
    LinExprObject* linear = linear_part(quadexpr);
    Ref coeffs = scaled_list(quadexpr->coeffs, factor);
    Ref linear_coeffs = scaled_list(linear->coeffs, factor);
    Ref old = replace(quadexpr->coeffs, std::move(coeffs));
    Ref old_linear = replace(linear->coeffs, std::move(linear_coeffs));
    linear->constant *= factor;
}

Ref list_item(PyObject* list, PyObject* index, const char* type) {
    Ref keep = borrow(list);  // the index may be an object that changes the expression
    Py_ssize_t k = checked(PyNumber_AsSsize_t(index, PyExc_IndexError));
    if (k < 0 || k >= PyList_GET_SIZE(list))
        raise(PyExc_IndexError, "%s has no term %zd: it has %zd terms, from 0", type, k,
              PyList_GET_SIZE(list));
    return borrow(PyList_GET_ITEM(list, k));
}

void normalize(LinExprObject* linexpr) {
    linear_view(linexpr);  // refuses lists that don't match
    merge_terms(linexpr->coeffs, linexpr->vars);
}

void normalize(QuadExprObject* quadexpr) {
    normalize(linear_part(quadexpr));
    view_of(quadexpr);
    merge_terms(quadexpr->coeffs, quadexpr->vars1, quadexpr->vars2);
}

}  // namespace taviropy
