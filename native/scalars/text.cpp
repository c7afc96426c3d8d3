#include "text.hpp"

#include <string>
#include <vector>

#include "attributes.hpp"
#include "operands.hpp"

namespace taviropy {

namespace {

constexpr Py_ssize_t kShownTerms = 100;
constexpr std::size_t kTreeLength = 4000;

std::string number_text(double value) {
    char* text = PyOS_double_to_string(value, 'r', 0, Py_DTSF_ADD_DOT_0, nullptr);
    if (!text) throw PythonError();
    std::string result(text);
    PyMem_Free(text);
    return result;
}

std::string var_text(PyObject* var) {
    Ref text = checked(PyObject_Str(as_object(variable(var))));
    const char* utf8 = PyUnicode_AsUTF8(text.get());
    if (!utf8) throw PythonError();
    return utf8;
}

Ref unicode(const std::string& text) {
    return checked(
        PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace"));
}

/// The first terms of a list, owned, since fetching a name runs Python code.
std::vector<Ref> shown(PyObject* list) {
    std::vector<Ref> items;
    for (Py_ssize_t k = 0; k < std::min(PyList_GET_SIZE(list), kShownTerms); ++k)
        items.push_back(borrow(PyList_GET_ITEM(list, k)));
    return items;
}

void append_rest(std::string& out, Py_ssize_t size, const char* what) {
    if (size > kShownTerms) out += " + ... (" + std::to_string(size) + " " + what + ")";
}

/// constant + coefficient variable + ...
std::string linear_text(LinExprObject* linexpr) {
    Py_ssize_t size = linear_view(linexpr).size;
    std::vector<Ref> coeffs = shown(linexpr->coeffs), vars = shown(linexpr->vars);
    std::string out = number_text(linexpr->constant);
    for (std::size_t k = 0; k < coeffs.size(); ++k)
        out += " + " + number_text(coefficient(coeffs[k].get())) + " " + var_text(vars[k].get());
    append_rest(out, size, "terms");
    return out;
}

/// A piece of a tree that is still to be written: a node, or what stands between nodes.
struct Piece {
    const ExprTreeObject* node;
    const char* text;
};

/// Pushes the children of a node, the first one on top.
void push_children(const ExprTreeObject* node, std::vector<Piece>& todo) {
    todo.push_back({nullptr, ")"});
    Py_ssize_t count = std::min(Py_SIZE(node), kShownTerms);
    if (count < Py_SIZE(node)) todo.push_back({nullptr, "; ..."});
    for (Py_ssize_t k = count; k-- > 0;) {
        todo.push_back({as_node(node->children[k]), nullptr});
        if (k > 0) todo.push_back({nullptr, "; "});
    }
}

}  // namespace

Ref linexpr_text(LinExprObject* linexpr) { return unicode(linear_text(linexpr)); }

Ref quadexpr_text(QuadExprObject* quadexpr) {
    Py_ssize_t size = view_of(quadexpr).size;
    std::vector<Ref> coeffs = shown(quadexpr->coeffs);
    std::vector<Ref> vars1 = shown(quadexpr->vars1), vars2 = shown(quadexpr->vars2);
    std::string out = linear_text(linear_part(quadexpr));
    for (std::size_t k = 0; k < coeffs.size(); ++k)
        out += " + " + number_text(coefficient(coeffs[k].get())) + " " + var_text(vars1[k].get()) +
               " * " + var_text(vars2[k].get());
    append_rest(out, size, "quadratic terms");
    return unicode(out);
}

Ref tree_text(PyObject* root) {
    Ref keep = borrow(root);
    std::string out;
    std::vector<Piece> todo{{as_node(root), nullptr}};  // a stack: trees may be deep
    while (!todo.empty()) {
        Piece piece = todo.back();
        todo.pop_back();
        if (out.size() > kTreeLength) return unicode(out + " ...");
        if (!piece.node) {
            out += piece.text;
        } else if (piece.node->op == Op::constant) {
            out += number_text(PyFloat_AS_DOUBLE(piece.node->data));
        } else if (piece.node->op == Op::var) {
            out += var_text(piece.node->data);
        } else {
            out += std::string(op_name(piece.node->op)) + "(";
            push_children(piece.node, todo);
        }
    }
    return unicode(out);
}

}  // namespace taviropy
