// nanobind's objects, with one trap closed.
//
// `object.attr(key)` and `object[key]` only note what is wanted; the value is fetched when it is
// used. Among the arguments of a call that is while they are collected, where nanobind can't throw:
// the next ones are then fetched with an exception pending, which may get lost. So what is noted is
// no argument: the value is taken first, by `nb::getattr(object, key)` or into a variable. CMake
// puts this header in front of every file of the module, so that none goes without it.
#pragma once

#include <nanobind/nanobind.h>

namespace nanobind::detail {

/// In place of the conversion of a noted value to an argument.
struct no_argument {
    template <class Accessor>
    static handle from_cpp(Accessor&&, rv_policy, cleanup_list*) noexcept {
        static_assert(sizeof(Accessor) == 0,
                      "take the value first: nb::getattr(object, key), or nb::object(object[key])");
        return {};
    }
};

#define TAVIROPY_NO_ARGUMENT(kind) \
    template <>                    \
    struct type_caster<accessor<kind>, int> : no_argument {};
TAVIROPY_NO_ARGUMENT(str_attr)
TAVIROPY_NO_ARGUMENT(obj_attr)
TAVIROPY_NO_ARGUMENT(obj_attr_own)
TAVIROPY_NO_ARGUMENT(str_item)
TAVIROPY_NO_ARGUMENT(obj_item)
TAVIROPY_NO_ARGUMENT(obj_item_own)
TAVIROPY_NO_ARGUMENT(num_item)
TAVIROPY_NO_ARGUMENT(num_item_tuple)
TAVIROPY_NO_ARGUMENT(num_item_list)
TAVIROPY_NO_ARGUMENT(dict_item)
TAVIROPY_NO_ARGUMENT(dict_item_own)
TAVIROPY_NO_ARGUMENT(dict_str_item)
#undef TAVIROPY_NO_ARGUMENT

}  // namespace nanobind::detail
