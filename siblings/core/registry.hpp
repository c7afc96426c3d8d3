// The indices of a model's elements of one kind.
#pragma once

#include <cstdint>
#include <vector>

#include "common/errors.hpp"
#include "scalars.hpp"

namespace taviropy {

constexpr int32_t kWaiting = -1;
constexpr int32_t kRemoved = -2;

/// Gives each element an id at creation and an index at the first settling after it. Removal takes
/// effect at the next settling as well; the indices of later elements then move up, so that
/// indices always rise with ids.
class Registry {
  public:
    const std::vector<int32_t>& numbers() const { return numbers_; }
    int32_t number(int32_t id) const { return numbers_[id]; }
    int32_t count() const { return count_; }
    bool all_in_place() const { return all_in_place_; }
    Py_ssize_t next_id() const { return static_cast<Py_ssize_t>(numbers_.size()); }

    /// Enters elements that wait; gives the id of the first.
    int32_t enter(Py_ssize_t elements);
    /// Takes back the elements entered last.
    void withdraw(Py_ssize_t elements) { numbers_.resize(numbers_.size() - elements); }
    /// Marks elements, given by ids that exist, for removal; one marked or removed before stays so.
    void discard(const int32_t* ids, Py_ssize_t size);
    /// Whether the next settling removes something.
    bool has_discarded() const { return !discarded_.empty(); }
    /// Settles. Where something was removed, `kept` gets the places that stay, counted over the
    /// elements in place and then those that waited.
    void settle(std::vector<int32_t>& kept);

  private:
    std::vector<int32_t> numbers_;    ///< by id: index, kWaiting or kRemoved
    std::vector<int32_t> discarded_;  ///< ids to remove at the next settling
    std::vector<bool> is_discarded_;  ///< by id, as long as needed
    std::size_t first_waiting_ = 0;   ///< id
    int32_t count_ = 0;
    bool all_in_place_ = true;
};

struct ModelObject {
    PyObject_HEAD Registry* registries;  ///< four, by kind
    PyObject* handle;                    ///< capsule, None when closed
};

inline bool is_model(PyObject* object) { return PyObject_TypeCheck(object, types.modelbase); }

inline Registry& registry_of(PyObject* model, int kind) {
    static constexpr int place[] = {-1, 0, 1, -1, 2, 3};
    return reinterpret_cast<ModelObject*>(model)->registries[place[kind]];
}

/// An object ndarray of handles on new elements; their ids rise in C order.
Ref new_elements(PyObject* model, int kind, PyObject* shape);

}  // namespace taviropy
