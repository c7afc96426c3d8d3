// Expression trees as arrays, as a model keeps them: a list of operations for each tree, in which
// an operation comes after those that it uses, and what is used more than once stands once.
//
// Operation k of a tree has a code, two arguments and a number. A constant has its number, a
// variable its id as first argument; all others have the places of their arguments within the
// tree, -1 where there is none. Sums of many become chains of two. The value of a tree
// is that of its last operation.
#include <array>
#include <unordered_map>

#include "elements.hpp"
#include "scalars.hpp"

namespace taviropy {

namespace {

constexpr int32_t kNone = -1;

struct Operation {
    uint8_t code;
    int32_t first, second;
    double number;
};

Operation operation(Op op, int32_t first, int32_t second = kNone, double number = 0.0) {
    return {static_cast<uint8_t>(op), first, second, number};
}

/// Trees on their way into arrays.
class Program {
  public:
    explicit Program(PyObject* model) : model_(model) {}

    void append_tree(Py_ssize_t row, PyObject* root) {
        start_ = operations_.size();
        std::unordered_map<const ExprTreeObject*, int32_t> places;
        for (const ExprTreeObject* node : post_order(root))
            places.emplace(node, append_node(row, node, places));
        indptr_.push_back(static_cast<int64_t>(operations_.size()));
    }

    Ref arrays() const {
        const auto size = static_cast<Py_ssize_t>(operations_.size());
        FilledArray<int64_t> indptr("int64", static_cast<Py_ssize_t>(indptr_.size()));
        std::copy(indptr_.begin(), indptr_.end(), indptr.items);
        FilledArray<uint8_t> codes("uint8", size);
        FilledArray<int32_t> first("int32", size), second("int32", size);
        FilledArray<double> numbers("float64", size);
        for (Py_ssize_t k = 0; k < size; ++k) {
            codes.items[k] = operations_[k].code;
            first.items[k] = operations_[k].first;
            second.items[k] = operations_[k].second;
            numbers.items[k] = operations_[k].number;
        }
        return checked(PyTuple_Pack(5, indptr.array.get(), codes.array.get(), first.array.get(),
                                    second.array.get(), numbers.array.get()));
    }

  private:
    template <class Places>
    int32_t append_node(Py_ssize_t row, const ExprTreeObject* node, const Places& places) {
        if (node->op == Op::constant)
            return append(operation(node->op, kNone, kNone, PyFloat_AS_DOUBLE(node->data)));
        if (node->op == Op::var)
            return append(operation(node->op, checked_id(model_, kVar, node->data, row)));
        const Py_ssize_t count = Py_SIZE(node);
        if (count == 0) return append(operation(Op::constant, kNone));  // an empty sum
        auto place_of = [&](Py_ssize_t k) { return places.at(as_node(node->children[k])); };
        if (node->op == Op::plus && count == 1) return place_of(0);  // a sum of one element
        int32_t place = append(operation(node->op, place_of(0), count > 1 ? place_of(1) : kNone));
        for (Py_ssize_t k = 2; k < count; ++k)
            place = append(operation(node->op, place, place_of(k)));
        return place;
    }

    int32_t append(const Operation& next) {
        operations_.push_back(next);
        return static_cast<int32_t>(operations_.size() - 1 - start_);
    }

    PyObject* model_;
    std::size_t start_ = 0;
    std::vector<int64_t> indptr_{0};
    std::vector<Operation> operations_;
};

Ref gather_trees(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("gather_trees", nargs, 2, 2);
    Objects roots(args[1]);
    Program program(model_argument(args[0]));
    roots.each([&](Py_ssize_t row, PyObject* root) {
        if (!is_node(root))
            raise(PyExc_TypeError, "tree %zd is of type '%s'; expected '_ExprTree'", row,
                  Py_TYPE(root)->tp_name);
        program.append_tree(row, root);
    });
    return program.arrays();
}

// ---- Values -------------------------------------------------------------------------------------

/// The arrays of trees, as `gather_trees` gives them, checked before they are walked.
struct TreeArrays {
    explicit TreeArrays(PyObject* const* arrays)
        : indptr(arrays[0], PyBUF_CONTIG_RO | PyBUF_FORMAT),
          codes(arrays[1], PyBUF_CONTIG_RO | PyBUF_FORMAT),
          first(arrays[2], PyBUF_CONTIG_RO | PyBUF_FORMAT),
          second(arrays[3], PyBUF_CONTIG_RO | PyBUF_FORMAT),
          numbers(arrays[4], PyBUF_CONTIG_RO | PyBUF_FORMAT) {
        if (!(indptr.holds('l') || indptr.holds('q')) || !codes.holds('B') || !first.holds('i') ||
            !second.holds('i') || !numbers.holds('d'))
            raise(PyExc_TypeError,
                  "trees are arrays of int64, uint8, int32, int32 and float64, as gather_trees "
                  "gives them");
        const Py_ssize_t size = codes.size();
        bool whole = indptr.size() > 0 && first.size() == size && second.size() == size &&
                     numbers.size() == size && starts()[0] == 0 && starts()[count()] == size;
        for (Py_ssize_t k = 0; whole && k < count(); ++k) whole = starts()[k] < starts()[k + 1];
        if (!whole) raise(PyExc_ValueError, "the arrays of trees don't fit each other");
    }

    Py_ssize_t count() const { return indptr.size() - 1; }
    const int64_t* starts() const { return static_cast<const int64_t*>(indptr->buf); }

    Buffer indptr, codes, first, second, numbers;
};

double value_at(const std::vector<double>& values, int32_t place) {
    if (place < 0 || static_cast<std::size_t>(place) >= values.size())
        raise(PyExc_ValueError, "an operation of a tree uses one that doesn't come before it");
    return values[place];
}

Ref tree_values(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("tree_values", nargs, 6, 6);
    TreeArrays trees(args);
    Buffer point(args[5], PyBUF_CONTIG_RO | PyBUF_FORMAT);
    if (!point.holds('d')) raise(PyExc_TypeError, "the point is an array of float64");
    const auto* x = static_cast<const double*>(point->buf);
    const auto* codes = static_cast<const uint8_t*>(trees.codes->buf);
    const auto* first = static_cast<const int32_t*>(trees.first->buf);
    const auto* second = static_cast<const int32_t*>(trees.second->buf);
    const auto* numbers = static_cast<const double*>(trees.numbers->buf);
    FilledArray<double> result("float64", trees.count());
    std::vector<double> values;
    for (Py_ssize_t row = 0; row < trees.count(); ++row) {
        values.clear();
        for (int64_t k = trees.starts()[row]; k < trees.starts()[row + 1]; ++k) {
            const Op op = codes[k] < kOps ? static_cast<Op>(codes[k]) : Op::constant;
            if (op == Op::constant) {
                values.push_back(numbers[k]);
            } else if (op == Op::var) {
                if (first[k] < 0 || first[k] >= point.size())
                    raise(PyExc_ValueError, "a tree has variable %d of %zd", first[k],
                          point.size());
                values.push_back(x[first[k]]);
            } else {
                double arguments[] = {value_at(values, first[k]), 0.0};
                if (second[k] != kNone) arguments[1] = value_at(values, second[k]);
                values.push_back(apply_operation(op, arguments, second[k] == kNone ? 1 : 2));
            }
        }
        result.items[row] = values.back();
    }
    return std::move(result.array);
}

PyMethodDef functions[] = {
    {"gather_trees", method<gather_trees>(), METH_FASTCALL,
     R"(gather_trees(model, roots, /)
--

Expression trees as arrays (indptr int64, codes uint8, first int32, second int32, numbers float64):
the operations of tree i are at indptr[i]:indptr[i + 1], each after those that it uses, and what
is used more than once stands once. codes are places in TREE_OPERATIONS. A constant has its number,
a variable its id in first; all others have the places of their arguments within the tree, -1 where
there is none.

roots is an object ndarray of any strides (C order) or a list of _ExprTree. TypeError for another type,
TaviroError for a variable of another model or a removed one.)"},
    {"tree_values", method<tree_values>(), METH_FASTCALL,
     R"(tree_values(indptr, codes, first, second, numbers, x, /)
--

The value of each tree (float64) where the variables have the values x, a contiguous float64 array;
the ids of variables in first are places in x.

ValueError and TypeError for arrays that make up no trees.)"},
    {nullptr},
};

}  // namespace

void ready_trees(PyObject* module) {
    check(PyModule_AddFunctions(module, functions));
    Ref names = checked(PyTuple_New(kOps));
    for (int op = 0; op < kOps; ++op)
        PyTuple_SET_ITEM(
            names.get(), op,
            checked(PyUnicode_InternFromString(op_name(static_cast<Op>(op)))).release());
    check(PyModule_AddObjectRef(module, "TREE_OPERATIONS", names.get()));
}

}  // namespace taviropy
