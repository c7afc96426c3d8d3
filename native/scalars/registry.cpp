#include "registry.hpp"

#include <algorithm>
#include <limits>
#include <numeric>

#include "taviro120/taviro120.h"

namespace taviropy {

int32_t Registry::count() const {
    int count = 0;
    TVOgetintattr(native_, count_name_, &count);
    return count;
}

void Registry::set_count(int32_t count) { TVOsetintattr(native_, count_name_, count); }

/// Calls visit(entries, size) for the ids from `first` on, before `end`, page by page.
template <class Visit>
void Registry::each_part(int32_t first, int32_t end, Visit visit) {
    while (first < end) {
        const int32_t place = first & kPageMask, size = std::min(kPageSize - place, end - first);
        visit(page_of(first).get() + place, size);
        first += size;
    }
}

int32_t Registry::enter(Py_ssize_t elements) {
    const int32_t first = next_id_;
    if (elements < 0 || elements > std::numeric_limits<int32_t>::max() - first)
        raise(PyExc_OverflowError,
              "a model holds at most 2147483647 elements of a kind: %d are there, %zd more asked "
              "for",
              static_cast<int>(first), elements);
    const int32_t end = first + static_cast<int32_t>(elements);
    pages_.resize((static_cast<std::size_t>(end) + kPageMask) >> kPageBits);
    each_part(first, end, [](int32_t* entries, int32_t size) {
        std::fill_n(entries, size, int32_t{kWaiting});
    });
    next_id_ = end;
    return first;
}

/// The page of an id, made where there is none.
Registry::Page& Registry::page_of(int32_t id) {
    Page& page = pages_[id >> kPageBits];
    if (!page) {
        page = std::make_unique<int32_t[]>(kPageSize);
        std::fill_n(page.get(), kPageSize, kRemoved);
    }
    return page;
}

void Registry::restore(int32_t next_id, int32_t placed) {
    if (next_id_ != 0 || placed < 0 || placed > next_id)
        raise(PyExc_ValueError,
              "%d elements, %d of them in place: they are no elements of one model", next_id,
              placed);
    enter(placed);
    place_waiting();
    first_waiting_ = placed;
    enter(next_id - placed);
}

void Registry::restore(int32_t next_id, int32_t placed, const std::vector<int32_t>& live) {
    const auto size = static_cast<int32_t>(live.size());
    bool fits = next_id_ == 0 && 0 <= placed && placed <= size && size <= next_id;
    for (int32_t k = 0; fits && k < size; ++k) {
        // What waits came last, without gaps: it isn't removed before it is settled.
        const int32_t least = k < placed ? (k ? live[k - 1] + 1 : 0) : next_id - size + k;
        fits = least <= live[k] && live[k] < next_id && (k < placed || live[k] == least);
    }
    if (!fits)
        raise(PyExc_ValueError,
              "%d elements, %d of them in place, with ids below %d: they are no elements of one "
              "model",
              size, placed, next_id);
    pages_.resize((static_cast<std::size_t>(next_id) + kPageMask) >> kPageBits);
    for (int32_t k = 0; k < size; ++k)
        page_of(live[k])[live[k] & kPageMask] = k < placed ? k : kWaiting;
    next_id_ = next_id;
    first_waiting_ = next_id - (size - placed);
    all_in_place_ = size == next_id;
    set_count(placed);
}

void Registry::discard(const int32_t* ids, Py_ssize_t size) {
    for (Py_ssize_t k = 0; k < size; ++k) {
        Page& page = pages_[ids[k] >> kPageBits];
        if (!page) continue;
        int32_t& entry = page[ids[k] & kPageMask];
        if (entry == kRemoved || is_marked(entry)) continue;
        entry = kMark - entry;
        has_discarded_ = true;
    }
}

void Registry::settle(std::vector<int32_t>& kept) {
    if (has_discarded_)
        remove_marked(kept);
    else
        place_waiting();
    first_waiting_ = next_id_;
}

/// Without a removal only what waits gets its number.
void Registry::place_waiting() {
    int32_t next = count();
    each_part(first_waiting_, next_id_, [&](int32_t* entries, int32_t size) {
        std::iota(entries, entries + size, next);
        next += size;
    });
    set_count(next);
}

void Registry::remove_marked(std::vector<int32_t>& kept) {
    int32_t place = 0, next = 0;
    for (int32_t first = 0; first < next_id_; first += kPageSize) {
        Page& page = pages_[first >> kPageBits];
        if (!page) continue;
        const int32_t next_before = next, size = std::min(kPageSize, next_id_ - first);
        for (int32_t k = 0; k < size; ++k) {
            if (page[k] == kRemoved) continue;
            if (is_marked(page[k])) {
                page[k] = kRemoved;
            } else {
                page[k] = next++;
                kept.push_back(place);
            }
            ++place;
        }
        if (next == next_before) page.reset();
    }
    has_discarded_ = all_in_place_ = false;
    set_count(next);
}

}  // namespace taviropy
