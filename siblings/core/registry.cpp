#include "registry.hpp"

#include <limits>

namespace taviropy {

int32_t Registry::enter(Py_ssize_t elements) {
    Py_ssize_t first = next_id();
    if (elements < 0 || elements > std::numeric_limits<int32_t>::max() - first)
        raise(PyExc_OverflowError,
              "a model holds at most 2147483647 elements of a kind: %zd are there, %zd more asked "
              "for",
              first, elements);
    numbers_.resize(static_cast<std::size_t>(first + elements), kWaiting);
    return static_cast<int32_t>(first);
}

void Registry::discard(const int32_t* ids, Py_ssize_t size) {
    is_discarded_.resize(numbers_.size());
    for (Py_ssize_t k = 0; k < size; ++k) {
        if (numbers_[ids[k]] == kRemoved || is_discarded_[ids[k]]) continue;
        discarded_.push_back(ids[k]);
        is_discarded_[ids[k]] = true;
    }
}

void Registry::settle(std::vector<int32_t>& kept) {
    bool removing = has_discarded();
    if (removing) {
        kept.reserve(count_ + (numbers_.size() - first_waiting_));
        all_in_place_ = false;
    }
    int32_t place = 0, next = removing ? 0 : count_;
    for (std::size_t id = removing ? 0 : first_waiting_; id < numbers_.size(); ++id) {
        if (numbers_[id] == kRemoved) continue;
        if (removing && id < is_discarded_.size() && is_discarded_[id]) {
            numbers_[id] = kRemoved;
        } else {
            if (removing) kept.push_back(place);
            numbers_[id] = next++;
        }
        ++place;
    }
    for (int32_t id : discarded_) is_discarded_[id] = false;
    discarded_.clear();
    count_ = next;
    first_waiting_ = numbers_.size();
}

}  // namespace taviropy
