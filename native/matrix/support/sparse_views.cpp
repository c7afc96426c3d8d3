#include "support/sparse_views.hpp"

#include <algorithm>
#include <string>

#include "support/imports.hpp"

namespace taviropy::sparse {

CompressedView::CompressedView(nb::handle matrix) {
    nb::object indptr = matrix.attr("indptr"), indices = matrix.attr("indices");
    nb::object data = matrix.attr("data");
    if (!indptr_.acquire(indptr.ptr()) || indptr_.ndim() != 1 || !indices_.acquire(indices.ptr()) ||
        indices_.ndim() != 1 || !data_.acquire(data.ptr()) || data_.ndim() != 1 || !data_.is_real())
        raise(PyExc_ValueError,
              "malformed sparse matrix: indptr and indices must be one-dimensional arrays of "
              "integers, "
              "and data one of real numbers");
    values_ = data_.doubles();
    stored_ = std::min(data_.length(), indices_.size());
}

nb::object CompressedView::value_list(Line line) const {
    return list_of(line.size(),
                   [&](Py_ssize_t k) { return PyFloat_FromDouble(values_[line.begin + k]); });
}

nb::object CompressedView::picked_list(Line line, const Chunk& objects, Py_ssize_t size) const {
    return list_of(line.size(), [&](Py_ssize_t k) {
        return objects.element(index(line.begin + k, size)).release().ptr();
    });
}

void CompressedView::refuse_line(Py_ssize_t i) {
    raise(PyExc_ValueError,
          "malformed sparse matrix: indptr[" + std::to_string(i) + "] and indptr[" +
              std::to_string(i + 1) +
              "] don't bound a part of the stored entries; indptr must start at 0, "
              "never fall and end within the data");
}

void CompressedView::refuse_index(Py_ssize_t found, Py_ssize_t limit) {
    raise(PyExc_ValueError, "malformed sparse matrix: it holds the index " + std::to_string(found) +
                                ", which is outside 0.." + std::to_string(limit - 1));
}

}  // namespace taviropy::sparse
