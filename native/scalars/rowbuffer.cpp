// RowBuffer: the quick way of small linear constraints into a model.
//
// A model that is built block by block spends its time in what each block costs at the least. A
// RowBuffer takes small blocks and scalar constraints straight from the expressions, in one call
// each, and gives all of them out as CSR arrays when the model is updated. What it can't take as it
// is, or finds faulty, it leaves to the general way, which also words the errors.
#include <cmath>
#include <cstring>

#include "elements.hpp"
#include "operands.hpp"
#include "rows.hpp"

namespace taviropy {

namespace {

constexpr Py_ssize_t kMostTerms = 4096;  ///< of a block that is copied into the buffer
constexpr Py_ssize_t kMostParts = 4;

/// Coefficients and right-hand sides of rows, one after the other.
struct RowData {
    std::vector<int64_t> indptr{0};
    std::vector<int32_t> ids;
    std::vector<double> data, rhs;
    std::vector<uint8_t> senses;

    void add_term(int32_t id, double value) {
        ids.push_back(id);
        data.push_back(value);
    }
    void end_row(double right, uint8_t sense) {
        indptr.push_back(static_cast<int64_t>(ids.size()));
        rhs.push_back(right);
        senses.push_back(sense);
    }
    void drop(std::size_t count) {
        if (count == rhs.size()) {
            *this = RowData();
            return;
        }
        const int64_t terms = indptr[count];
        indptr.erase(indptr.begin(), indptr.begin() + static_cast<std::ptrdiff_t>(count));
        for (int64_t& start : indptr) start -= terms;
        ids.erase(ids.begin(), ids.begin() + terms);
        data.erase(data.begin(), data.begin() + terms);
        rhs.erase(rhs.begin(), rhs.begin() + static_cast<std::ptrdiff_t>(count));
        senses.erase(senses.begin(), senses.begin() + static_cast<std::ptrdiff_t>(count));
    }
    void append(const RowData& other) {
        const int64_t before = indptr.back();
        for (std::size_t row = 1; row < other.indptr.size(); ++row)
            indptr.push_back(before + other.indptr[row]);
        ids.insert(ids.end(), other.ids.begin(), other.ids.end());
        data.insert(data.end(), other.data.begin(), other.data.end());
        rhs.insert(rhs.end(), other.rhs.begin(), other.rhs.end());
        senses.insert(senses.end(), other.senses.begin(), other.senses.end());
    }
};

struct RowBufferObject {
    PyObject_HEAD RowData* rows;
    PyObject* matrix_type;  ///< MLinExpr
};

RowBufferObject* as_buffer(PyObject* self) { return reinterpret_cast<RowBufferObject*>(self); }

/// What stands on the right of a block: one number, or one a row.
class RightSide {
  public:
    /// Whether `side` is a number, or a float64 array of the shape of `constant`; an array of one
    /// number beside one row may have another number of axes.
    bool take(PyObject* side, const Buffer& constant) {
        if (PyFloat_Check(side)) {
            number_ = PyFloat_AS_DOUBLE(side);
            return true;
        }
        if (PyLong_CheckExact(side)) {
            number_ = PyLong_AsDouble(side);
            if (number_ != -1.0 || !PyErr_Occurred()) return true;
            PyErr_Clear();
            return false;
        }
        // Not of a derived class: a masked array has entries that aren't to be read.
        if (!Py_IS_TYPE(side, loaded_ndarray_type()) || dtype_kind(side) != 'f') return false;
        array_.emplace(side, PyBUF_RECORDS_RO);
        if (!array_->holds('d')) return false;
        const bool single = array_->size() == 1 && constant.size() == 1;
        if (!single && (*array_)->ndim != constant->ndim) return false;
        for (int d = 0; d < constant->ndim && !single; ++d)
            if ((*array_)->shape[d] != constant->shape[d]) return false;
        walker_.emplace(*array_);
        return true;
    }
    /// The shape of the comparison: that of the side with more axes.
    const Buffer& shape_with(const Buffer& constant) const {
        return array_ && (*array_)->ndim > constant->ndim ? *array_ : constant;
    }
    double next() { return walker_ ? *reinterpret_cast<double*>(walker_->next()) : number_; }

  private:
    double number_ = 0.0;
    std::optional<Buffer> array_;
    std::optional<Walker> walker_;
};

/// One part `A @ x` of a compact expression.
class Part {
  public:
    Part(PyObject* matrix, PyObject* x)
        : arrays_(field(matrix, field_names.indptr).get(), field(matrix, field_names.indices).get(),
                  field(matrix, field_names.data).get()),
          variables_(field(x, field_names.vararr).get(), PyBUF_RECORDS_RO) {}

    bool fits(Py_ssize_t rows) const {
        return arrays_.is_whole(rows) && arrays_.indptr[rows] <= kMostTerms &&
               variables_.holds('O') && variables_->ndim == 1;
    }

    /// Appends the terms of a row; false where one of them isn't sound.
    bool append_row(PyObject* model, Py_ssize_t row, RowData& out) const {
        const Registry& registry = registry_of(model, kVar);
        const char* first = static_cast<const char*>(variables_->buf);
        for (int64_t k = arrays_.indptr[row]; k < arrays_.indptr[row + 1]; ++k) {
            int64_t index = arrays_.indices[k];
            double value = arrays_.values()[k];
            if (index < 0 || index >= variables_->shape[0] || !std::isfinite(value)) return false;
            PyObject* object =
                *reinterpret_cast<PyObject* const*>(first + index * variables_->strides[0]);
            if (!object || !is_var(object) || as_handle(object)->model != model ||
                registry.number(as_handle(object)->id) <= kRemoved)
                return false;
            out.add_term(as_handle(object)->id, value);
        }
        return true;
    }

  private:
    CsrArrays arrays_;
    Buffer variables_;
};

/// Opens the parts of a compact expression; false where one is not whole or too big. The fields of
/// a part may be the user's, whose code could change the arrays of another one: so all are opened
/// first, and then looked at.
bool open_parts(const Ref& parts, Py_ssize_t rows, std::optional<Part>* opened) {
    const Py_ssize_t count = PyTuple_GET_SIZE(parts.get());
    for (Py_ssize_t k = 0; k < count; ++k) {
        PyObject* pair = PyTuple_GET_ITEM(parts.get(), k);
        if (!PyTuple_CheckExact(pair) || PyTuple_GET_SIZE(pair) != 2) return false;
        opened[k].emplace(PyTuple_GET_ITEM(pair, 0), PyTuple_GET_ITEM(pair, 1));
    }
    for (Py_ssize_t k = 0; k < count; ++k)
        if (!opened[k]->fits(rows)) return false;
    return true;
}

/// Appends the rows of a compact expression; gives their shape, or nothing.
Ref append_block(PyObject* model, TempConstrObject* constr, uint8_t sense, RowData& out) {
    Ref list = field(constr->lhs, field_names.matmulparts);
    Ref array = field(constr->lhs, field_names.constant);
    if (!PyList_CheckExact(list.get()) || PyList_GET_SIZE(list.get()) > kMostParts) return Ref();
    Ref parts = checked(PyList_AsTuple(list.get()));
    Buffer constant(array.get(), PyBUF_RECORDS_RO);
    Py_ssize_t rows = constant.size(), count = PyTuple_GET_SIZE(parts.get());
    RightSide right;
    std::optional<Part> opened[kMostParts];
    if (!constant.holds('d') || rows > kMostTerms || !right.take(constr->rhs, constant) ||
        !open_parts(parts, rows, opened))
        return Ref();
    Walker constants(constant);
    for (Py_ssize_t row = 0; row < rows; ++row) {
        for (Py_ssize_t k = 0; k < count; ++k)
            if (!opened[k]->append_row(model, row, out)) return Ref();
        double rhs = right.next() - *reinterpret_cast<double*>(constants.next());
        if (std::isnan(rhs)) return Ref();
        out.end_row(rhs, sense);
    }
    const Buffer& whole = right.shape_with(constant);
    Ref shape = checked(PyTuple_New(whole->ndim));
    for (int d = 0; d < whole->ndim; ++d)
        PyTuple_SET_ITEM(shape.get(), d, checked(PyLong_FromSsize_t(whole->shape[d])).release());
    return shape;
}

/// Appends the terms of one side of a scalar comparison; false where one of them isn't sound.
bool append_terms(PyObject* model, const LinearView& view, double sign, RowData& out) {
    for (Py_ssize_t k = 0; k < view.size; ++k) {
        double value = coefficient(view.coeffs[k]);
        HandleObject* var = variable(view.vars[k]);
        if (!std::isfinite(value) || var->model != model ||
            registry_of(model, kVar).number(var->id) <= kRemoved)
            return false;
        out.add_term(var->id, sign * value);
    }
    return true;
}

bool is_linear(const Operand& side) {
    return side.kind == OperandKind::number || side.kind == OperandKind::var ||
           side.kind == OperandKind::linear;
}

bool append_scalar(PyObject* model, TempConstrObject* constr, uint8_t sense, RowData& out) {
    Operand left = classify(constr->lhs), right = classify(constr->rhs);
    if (!is_linear(left) || !is_linear(right)) return false;
    LinearView a = linear_view(left), b = linear_view(right);
    double rhs = b.constant - a.constant;
    if (std::isnan(rhs) || !append_terms(model, a, 1.0, out) || !append_terms(model, b, -1.0, out))
        return false;
    out.end_row(rhs, sense);
    return true;
}

/// Place of a sense in "<=>", or -1.
int sense_code(PyObject* sense) {
    if (!PyUnicode_Check(sense) || PyUnicode_GET_LENGTH(sense) != 1) return -1;
    const char* all = "<=>";
    Py_UCS4 character = PyUnicode_READ_CHAR(sense, 0);
    for (int code = 0; code < 3; ++code)
        if (character == static_cast<Py_UCS4>(all[code])) return code;
    return -1;
}

/// Appends a comparison and makes the handles; nothing where the general way is to take it.
///
/// Between the making of the ids and the appending of the rows no code of others may run: it could
/// append rows of its own, and the ids would belong to the wrong rows from then on.
Ref append(RowBufferObject* self, PyObject* model, TempConstrObject* constr) {
    int sense = sense_code(constr->sense);
    if (sense < 0) return Ref();
    RowData rows;
    Ref made;
    if (as_object(Py_TYPE(constr->lhs)) == self->matrix_type) {
        Ref shape = append_block(model, constr, static_cast<uint8_t>(sense), rows);
        if (!shape) return Ref();
        made = new_array("object", shape.get());
        fill_with_new_elements(model, kConstr, made.get());
    } else {
        if (!is_var(constr->lhs) && !is_linexpr(constr->lhs)) return Ref();
        if (!append_scalar(model, constr, static_cast<uint8_t>(sense), rows)) return Ref();
        made = new_element(model, kConstr);
    }
    self->rows->append(rows);
    return made;
}

Ref RowBuffer_append(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    check_count("append", nargs, 2, 2);
    PyObject* model = model_argument(args[0]);
    if (!Py_IS_TYPE(args[1], types.tempconstr)) return none();
    Ref made = append(as_buffer(self), model, reinterpret_cast<TempConstrObject*>(args[1]));
    return made ? std::move(made) : none();
}

template <class Item>
Ref array_of(const char* dtype, const std::vector<Item>& items) {
    FilledArray<Item> array(dtype, static_cast<Py_ssize_t>(items.size()));
    if (!items.empty()) std::memcpy(array.items, items.data(), items.size() * sizeof(Item));
    return std::move(array.array);
}

Ref RowBuffer_arrays(PyObject* self, PyObject*) {
    const RowData& rows = *as_buffer(self)->rows;
    Ref indptr = array_of("int64", rows.indptr), ids = array_of("int32", rows.ids);
    Ref data = array_of("float64", rows.data), rhs = array_of("float64", rows.rhs);
    Ref senses = array_of("uint8", rows.senses);
    return checked(PyTuple_Pack(5, indptr.get(), ids.get(), data.get(), rhs.get(), senses.get()));
}

Ref RowBuffer_drop(PyObject* self, PyObject* argument) {
    const Py_ssize_t count = checked(PyLong_AsSsize_t(argument));
    RowData& rows = *as_buffer(self)->rows;
    if (count < 0 || static_cast<std::size_t>(count) > rows.rhs.size())
        raise(PyExc_ValueError, "there are %zu rows, %zd can't be dropped", rows.rhs.size(), count);
    rows.drop(static_cast<std::size_t>(count));
    return none();
}

Py_ssize_t row_count(PyObject* self) {
    return static_cast<Py_ssize_t>(as_buffer(self)->rows->rhs.size());
}

Ref RowBuffer_new(PyTypeObject* type, PyObject* args, PyObject*) {
    PyObject* matrix_type = nullptr;
    if (!PyArg_ParseTuple(args, "O!:RowBuffer", &PyType_Type, &matrix_type)) throw PythonError();
    Ref self = checked(type->tp_alloc(type, 0));
    as_buffer(self.get())->matrix_type = Py_NewRef(matrix_type);
    as_buffer(self.get())->rows = new RowData();
    return self;
}

void RowBuffer_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    delete as_buffer(self)->rows;
    Py_XDECREF(as_buffer(self)->matrix_type);
    type->tp_free(self);
    Py_DECREF(type);
}

PyMethodDef methods[] = {
    {"append", method<RowBuffer_append>(), METH_FASTCALL,
     R"(append($self, model, constr, /)
--

Takes the rows of a TempConstr with a small compact MLinExpr and data, or with scalar linear
sides, and makes their handles: an object ndarray, or one Constr. None where it takes nothing:
then the general way is to see to the constraint.)"},
    {"arrays", method<RowBuffer_arrays>(), METH_NOARGS,
     R"(arrays($self, /)
--

The rows: (indptr int64, ids int32, data float64, rhs float64, senses uint8).)"},
    {"drop", method<RowBuffer_drop>(), METH_O,
     R"(drop($self, count, /)
--

Drops the first rows, so many of them.)"},
    {nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char*>(R"(RowBuffer(mlinexpr_type)
--

Rows of small linear constraints that wait for an update, in order of creation.)")},
    {Py_tp_new, slot<RowBuffer_new>()},
    {Py_tp_dealloc, reinterpret_cast<void*>(RowBuffer_dealloc)},
    {Py_tp_methods, methods},
    {Py_sq_length, slot<row_count>()},
    {0, nullptr},
};

PyType_Spec spec = {"taviropy._core.RowBuffer", sizeof(RowBufferObject), 0, Py_TPFLAGS_DEFAULT,
                    slots};

}  // namespace

void ready_rows(PyObject* module) {
    ready_row_checks(module);
    ready_type(module, &spec);
}

}  // namespace taviropy
