// Walks over expression trees, without recursion and each shared node once.
#include <cmath>
#include <unordered_map>

#include "attributes.hpp"
#include "operands.hpp"

namespace taviropy {

double apply_operation(Op op, const double* x, Py_ssize_t count) {
    switch (op) {
        case Op::plus: {
            double sum = 0.0;
            for (Py_ssize_t k = 0; k < count; ++k) sum += x[k];
            return sum;
        }
        case Op::minus:
            return x[0] - x[1];
        case Op::multiply:
            return x[0] * x[1];
        case Op::divide:
            return x[0] / x[1];
        case Op::pow:
            return std::pow(x[0], x[1]);
        case Op::square:
            return x[0] * x[0];
        case Op::uminus:
            return -x[0];
        case Op::exp:
            return std::exp(x[0]);
        case Op::log:
            return std::log(x[0]);
        case Op::sqrt:
            return std::sqrt(x[0]);
        case Op::sin:
            return std::sin(x[0]);
        case Op::cos:
            return std::cos(x[0]);
        case Op::tan:
            return std::tan(x[0]);
        case Op::abs:
            return std::fabs(x[0]);
        default:
            return std::nan("");
    }
}

namespace {

using Places = std::unordered_map<const ExprTreeObject*, Py_ssize_t>;

Places places_of(const std::vector<ExprTreeObject*>& nodes) {
    Places places;
    places.reserve(nodes.size());
    for (std::size_t k = 0; k < nodes.size(); ++k) places.emplace(nodes[k], k);
    return places;
}

}  // namespace

std::vector<ExprTreeObject*> post_order(PyObject* root) {
    struct Visit {
        ExprTreeObject* node;
        Py_ssize_t next_child;
    };
    std::vector<ExprTreeObject*> order;
    std::unordered_map<const ExprTreeObject*, bool> met;
    std::vector<Visit> path{{as_node(root), 0}};
    met.emplace(as_node(root), true);
    while (!path.empty()) {
        Visit& top = path.back();
        if (top.next_child == Py_SIZE(top.node)) {
            order.push_back(top.node);
            path.pop_back();
            continue;
        }
        ExprTreeObject* child = as_node(top.node->children[top.next_child++]);
        if (met.emplace(child, true).second) path.push_back({child, 0});
    }
    return order;
}

Ref deep_copy_of_tree(PyObject* root, PyObject* memo) {
    Ref keep = borrow(root);
    std::vector<ExprTreeObject*> nodes = post_order(root);
    Places places = places_of(nodes);
    std::vector<Ref> copies;
    copies.reserve(nodes.size());
    std::vector<PyObject*> children;
    for (ExprTreeObject* node : nodes) {
        children.clear();
        bool is_same = true;
        for (Py_ssize_t c = 0; c < Py_SIZE(node); ++c) {
            children.push_back(copies[places.at(as_node(node->children[c]))].get());
            is_same = is_same && children.back() == node->children[c];
        }
        Ref var = node->op == Op::var ? deep_copy(node->data, memo) : Ref();
        if (var && var.get() != node->data)
            copies.push_back(var_node(var.get()));
        else if (is_same)
            copies.push_back(borrow(as_object(node)));
        else
            copies.push_back(new_node(node->op, children.data(), Py_SIZE(node)));
    }
    return std::move(copies.back());
}

double tree_value(PyObject* root) {
    Ref keep = borrow(root);
    std::vector<ExprTreeObject*> nodes = post_order(root);
    std::vector<PyObject*> vars;
    for (ExprTreeObject* node : nodes)
        if (node->op == Op::var) vars.push_back(node->data);
    std::vector<double> solution =
        solution_values(vars.data(), static_cast<Py_ssize_t>(vars.size()));
    Places places = places_of(nodes);
    std::vector<double> values, arguments;
    values.reserve(nodes.size());
    std::size_t next_var = 0;
    for (ExprTreeObject* node : nodes) {
        arguments.clear();
        for (Py_ssize_t c = 0; c < Py_SIZE(node); ++c)
            arguments.push_back(values[places.at(as_node(node->children[c]))]);
        if (node->op == Op::constant)
            values.push_back(PyFloat_AS_DOUBLE(node->data));
        else if (node->op == Op::var)
            values.push_back(solution[next_var++]);
        else
            values.push_back(apply_operation(node->op, arguments.data(), Py_SIZE(node)));
    }
    return values.back();
}

}  // namespace taviropy
