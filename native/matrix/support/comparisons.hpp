// The comparisons of the matrix classes, which make constraints.
#pragma once

#include "support/classes.hpp"
#include "support/names.hpp"

namespace taviropy {

namespace comparisons {

enum class Sense { less_equal, greater_equal, equal };

/// TempConstr(self, TVO.<sense>, rhs)
nb::object make(nb::handle self, Sense sense, nb::handle rhs);
/// TaviroError(code, ...), since a constraint can't be an inequality of that kind.
[[noreturn]] void refuse_not_equal(int code);

}  // namespace comparisons

/// `<=`, `>=` and `==` of a class; `!=` is a TaviroError with this code.
template <const Name& Class, int code>
struct Comparisons {
    static nb::object le(nb::handle self, nb::handle rhs) {
        return comparisons::make(self, comparisons::Sense::less_equal, rhs);
    }
    static nb::object ge(nb::handle self, nb::handle rhs) {
        return comparisons::make(self, comparisons::Sense::greater_equal, rhs);
    }
    static nb::object eq(nb::handle self, nb::handle rhs) {
        return comparisons::make(self, comparisons::Sense::equal, rhs);
    }
    static nb::object ne(nb::handle, nb::handle) { comparisons::refuse_not_equal(code); }
};

template <const Name& Class, int code>
void add_comparisons(ClassBody& body) {
    using Methods = Comparisons<Class, code>;
    body.method<&Methods::le>("__le__(self, rhs)")
        .template method<&Methods::ge>("__ge__(self, rhs)")
        .template method<&Methods::eq>("__eq__(self, rhs)")
        .template method<&Methods::ne>("__ne__(self, rhs)");
}

}  // namespace taviropy
