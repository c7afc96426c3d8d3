// The indices of a model's elements of one kind.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/errors.hpp"
#include "scalars.hpp"

struct TVOmodel;

namespace taviropy {

constexpr int32_t kWaiting = -1;
constexpr int32_t kRemoved = -2;

/// Gives each element an id at creation and an index at the first settling after it. Removal takes
/// effect at the next settling as well; the indices of later elements then move up, so that
/// indices always rise with ids.
///
/// Ids are never used again, so that a handle on a removed element stays one. They stand in pages,
/// and a page whose elements have all been removed is released: what was added and removed again
/// leaves a pointer for each thousands of elements.
///
/// How many elements are in place is a count of the model library, kept there alone.
class Registry {
  public:
    Registry() = default;
    Registry(TVOmodel* native, const char* count_name) : native_(native), count_name_(count_name) {}

    /// Index of the element with an id that exists; kWaiting or kRemoved.
    int32_t number(int32_t id) const {
        const Page& page = pages_[id >> kPageBits];
        return page ? number_of(page[id & kPageMask]) : kRemoved;
    }
    int32_t count() const;
    /// In place and waiting. Nothing that waits is removed before it is settled.
    int32_t size() const { return count() + (next_id_ - first_waiting_); }
    bool all_in_place() const { return all_in_place_; }
    int32_t next_id() const { return next_id_; }

    /// Enters elements that wait; gives the id of the first.
    int32_t enter(Py_ssize_t elements);
    /// Takes back the elements entered last.
    void withdraw(Py_ssize_t elements) { next_id_ -= static_cast<int32_t>(elements); }
    /// Marks elements, given by ids that exist, for removal; one marked or removed before stays so.
    void discard(const int32_t* ids, Py_ssize_t size);
    /// Whether the next settling removes something.
    bool has_discarded() const { return has_discarded_; }
    /// Settles. Where something was removed, `kept` gets the places that stay, counted over the
    /// elements in place and then those that waited.
    void settle(std::vector<int32_t>& kept);
    /// Enters the elements of another registry into a new one: those with the ids `live`, which
    /// rise, of `next_id`; the first `placed` of them are in place. ValueError where that can't be.
    void restore(int32_t next_id, int32_t placed, const std::vector<int32_t>& live);
    /// The same where nothing was removed.
    void restore(int32_t next_id, int32_t placed);
    /// Calls visit(id) for each element that the next settling removes.
    template <class Visit>
    void each_discarded(Visit visit) const {
        each_live([&](int32_t id) {
            if (is_marked(pages_[id >> kPageBits][id & kPageMask])) visit(id);
        });
    }
    /// Calls visit(id) for each element that isn't removed, by rising id.
    template <class Visit>
    void each_live(Visit visit) const {
        for (int32_t first = 0; first < next_id_; first += kPageSize) {
            const Page& page = pages_[first >> kPageBits];
            if (!page) continue;
            const int32_t size = std::min(kPageSize, next_id_ - first);
            for (int32_t k = 0; k < size; ++k)
                if (page[k] != kRemoved) visit(first + k);
        }
    }

  private:
    static constexpr int kPageBits = 12;
    static constexpr int32_t kPageSize = 1 << kPageBits, kPageMask = kPageSize - 1;
    using Page = std::unique_ptr<int32_t[]>;  ///< empty where all of its elements were removed

    /// An element that the next settling removes has this less its number in its place.
    static constexpr int32_t kMark = -4;
    static bool is_marked(int32_t entry) { return entry <= kMark - kWaiting; }
    static int32_t number_of(int32_t entry) { return is_marked(entry) ? kMark - entry : entry; }

    Page& page_of(int32_t id);
    template <class Visit>
    void each_part(int32_t first, int32_t end, Visit visit);
    void place_waiting();
    void remove_marked(std::vector<int32_t>& kept);
    void set_count(int32_t count);

    TVOmodel* native_ = nullptr;
    const char* count_name_ = nullptr;
    std::vector<Page> pages_;
    int32_t next_id_ = 0, first_waiting_ = 0;
    bool has_discarded_ = false, all_in_place_ = true;
};

/// A registry as a Python object, which those that number by it can hold without the model.
struct NumberingObject {
    PyObject_HEAD PyObject* handle;  ///< of the model library, where the count is
    Registry registry;
};

/// The native part of a model's data.
struct ModelCoreObject {
    PyObject_HEAD PyObject* numberings[4];  ///< by `place_of` the kind
    PyObject* handle;                       ///< capsule
    PyObject* shell;                        ///< weak reference to the public Model, or null
    PyObject* new_shell;                    ///< makes one where it is gone
};

inline bool is_model_core(PyObject* object) { return PyObject_TypeCheck(object, types.modelcore); }

inline int place_of(int kind) {
    static constexpr int places[] = {-1, 0, 1, -1, 2, 3};
    return places[kind];
}

inline Registry& registry_of(PyObject* core, int kind) {
    PyObject* numbering = reinterpret_cast<ModelCoreObject*>(core)->numberings[place_of(kind)];
    return reinterpret_cast<NumberingObject*>(numbering)->registry;
}

/// A handle on a new element.
Ref new_element(PyObject* core, ElementKind kind);
/// An object ndarray of handles on new elements; their ids rise in C order.
Ref new_elements(PyObject* core, int kind, PyObject* shape);
/// Fills a new object ndarray with such handles. No code of others runs meanwhile: a handle has no
/// finalizer, and the collector doesn't follow it.
void fill_with_new_elements(PyObject* core, int kind, PyObject* array);
/// The public Model of a ModelCore: the user's own, or a new one where that is gone.
Ref model_of(PyObject* core);

}  // namespace taviropy
