// Coefficients from text. What isn't of the usual form is left to the caller, who reads all forms
// and tells what is wrong where.
#include <charconv>
#include <cmath>
#include <limits>

#include "files.hpp"

namespace taviropy {

namespace {

bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

/// A place in a text that moves on.
class Cursor {
  public:
    explicit Cursor(std::string_view text)
        : text_(text), at_(text.data()), end_(text.data() + text.size()) {}

    bool is_done() const { return at_ == end_; }
    Py_ssize_t place() const { return at_ - text_.data(); }
    void move_to(Py_ssize_t place) { at_ = text_.data() + place; }
    char peek(Py_ssize_t ahead = 0) const { return end_ - at_ > ahead ? at_[ahead] : '\0'; }
    void skip() { ++at_; }

    bool take(char c) {
        if (peek() != c) return false;
        ++at_;
        return true;
    }

    void skip_blanks() {
        while (at_ != end_ && is_blank(*at_)) ++at_;
    }

    /// Blanks within a line.
    void skip_spaces() {
        while (at_ != end_ && *at_ != '\n' && is_blank(*at_)) ++at_;
    }

    /// What stands before the next blank.
    std::string_view word() {
        const char* start = at_;
        while (at_ != end_ && !is_blank(*at_)) ++at_;
        return {start, static_cast<std::size_t>(at_ - start)};
    }

    /// A number without sign; false where none begins here, or one that is too large.
    bool number(double& value) {
        if (!is_digit(peek()) && !(peek() == '.' && is_digit(peek(1)))) return false;
        const auto result = std::from_chars(at_, end_, value);
        if (result.ec != std::errc()) return false;
        at_ = result.ptr;
        return true;
    }

    std::string_view since(Py_ssize_t place) const {
        return {text_.data() + place, static_cast<std::size_t>(this->place() - place)};
    }

  private:
    std::string_view text_;
    const char *at_, *end_;
};

bool equals(std::string_view word, const char* lower_case) {
    std::size_t k = 0;
    for (; k < word.size() && lower_case[k]; ++k)
        if ((word[k] | 0x20) != lower_case[k]) return false;
    return k == word.size() && !lower_case[k];
}

Ref name_list(const std::vector<std::string_view>& names) {
    Ref list = checked(PyList_New(static_cast<Py_ssize_t>(names.size())));
    for (std::size_t k = 0; k < names.size(); ++k)
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(k), new_text(names[k]).release());
    return list;
}

// ---- Columns, line by line ----------------------------------------------------------------------

/// A whole word as a finite number with a sign or without.
bool whole_number(std::string_view word, double& value) {
    if (word.size() > 1 && word[0] == '+' && word[1] != '-') word.remove_prefix(1);
    const auto result = std::from_chars(word.data(), word.data() + word.size(), value);
    return result.ec == std::errc() && result.ptr == word.data() + word.size() &&
           std::isfinite(value);
}

/// The entries of lines "column row number", with lines that begin and end integers between them.
class Entries {
  public:
    explicit Entries(Numbering rows) : rows_(std::move(rows)) {}

    /// Reads the next line; false where it is of another form.
    bool read_line(Cursor& cursor) {
        if (cursor.peek() == '*') return false;
        cursor.skip_spaces();
        if (cursor.take('\n') || cursor.is_done()) return true;
        std::string_view fields[3];
        for (auto& field : fields) {
            field = cursor.word();
            if (field.empty()) return false;
            cursor.skip_spaces();
        }
        if (!cursor.take('\n') && !cursor.is_done()) return false;
        if (fields[1] == "'MARKER'") return add_marker(fields[2]);
        return add(fields[0], fields[1], fields[2]);
    }

    Ref result() const {
        Ref toggles = checked(PyList_New(0));
        for (const auto place : toggles_) {
            Ref number = checked(PyLong_FromLongLong(place));
            check(PyList_Append(toggles.get(), number.get()));
        }
        Ref names = name_list(names_), column = array_of("int64", column_),
            row = array_of("int64", row_), data = array_of("float64", data_);
        return checked(
            PyTuple_Pack(5, names.get(), column.get(), row.get(), data.get(), toggles.get()));
    }

  private:
    bool add_marker(std::string_view kind) {
        if (kind != (toggles_.size() % 2 ? "'INTEND'" : "'INTORG'")) return false;
        toggles_.push_back(static_cast<int64_t>(data_.size()));
        return true;
    }

    bool add(std::string_view name, std::string_view row, std::string_view number) {
        const auto found = rows_.find(row);
        double value = 0.0;
        if (found == rows_.end() || !whole_number(number, value)) return false;
        if (names_.empty() || name != last_) {
            const auto next = static_cast<int64_t>(names_.size());
            const auto [known, is_new] = columns_.try_emplace(name, next);
            if (is_new) names_.push_back(name);
            last_ = name;
            last_column_ = known->second;
        }
        column_.push_back(last_column_);
        row_.push_back(found->second);
        data_.push_back(value);
        return true;
    }

    Numbering rows_, columns_;
    std::vector<std::string_view> names_;
    std::string_view last_;
    int64_t last_column_ = 0;
    std::vector<int64_t> column_, row_, toggles_;
    std::vector<double> data_;
};

Ref column_entries(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("column_entries", nargs, 2, 2);
    Cursor cursor(ascii_view(args[0]));
    Entries entries(numbering_of(args[1]));
    while (!cursor.is_done())
        if (!entries.read_line(cursor)) return none();
    return entries.result();
}

// ---- Rows as formulas ---------------------------------------------------------------------------

/// Rows of the form "name: 3 x - y >= 2", where the name may be missing.
class PlainRows {
  public:
    PlainRows(std::string_view text, PyObject* columns)
        : cursor_(text), dict_(columns), columns_(numbering_of(columns)) {}

    /// Reads rows as long as they are of this form.
    void read() {
        for (;;) {
            cursor_.skip_blanks();
            end_ = cursor_.place();
            if (cursor_.is_done() || !read_row()) break;
            add_columns();
        }
    }

    Ref result() {
        data_.resize(ids_.size());  // without those of a row that was begun
        Ref end = checked(PyLong_FromSsize_t(end_)), names = name_list(names_);
        Ref lengths = array_of("int64", lengths_), ids = array_of("int64", ids_),
            data = array_of("float64", data_), lower = array_of("float64", lower_),
            upper = array_of("float64", upper_);
        return checked(PyTuple_Pack(7, end.get(), names.get(), lengths.get(), ids.get(), data.get(),
                                    lower.get(), upper.get()));
    }

  private:
    static bool is_in_name(char c) {
        return !is_blank(c) && c != '\0' &&
               std::string_view("<>=+-*/^:[]").find(c) == std::string_view::npos;
    }

    /// A name; false where none begins here, or one with brackets.
    bool read_name(std::string_view& name) {
        if (is_digit(cursor_.peek()) || cursor_.peek() == '.') return false;
        const Py_ssize_t start = cursor_.place();
        while (is_in_name(cursor_.peek())) cursor_.skip();
        name = cursor_.since(start);
        return !name.empty() && cursor_.peek() != '[';
    }

    bool read_row() {
        std::string_view name;
        const Py_ssize_t start = cursor_.place();
        if (read_name(name)) cursor_.skip_blanks();
        if (name.empty() || !cursor_.take(':')) {
            name = {};
            cursor_.move_to(start);
        }
        terms_.clear();
        while (!is_relation(cursor_.peek()))
            if (!read_term()) return false;
        double lower = 0.0, upper = 0.0;
        if (terms_.empty() || !read_side(lower, upper)) return false;
        names_.push_back(name);
        lower_.push_back(lower);
        upper_.push_back(upper);
        return true;
    }

    static bool is_relation(char c) { return c == '<' || c == '>' || c == '='; }

    /// A sign, which the first term may lack, a number, which may be missing, and a name.
    bool read_term() {
        cursor_.skip_blanks();
        double value = 1.0;
        const bool is_negative = cursor_.take('-');
        if (!is_negative && !cursor_.take('+') && !terms_.empty()) return false;
        cursor_.skip_blanks();
        if (cursor_.number(value)) {
            cursor_.skip_blanks();
            if (cursor_.take('*')) cursor_.skip_blanks();
        }
        std::string_view name;
        if (!read_name(name) || equals(name, "inf") || equals(name, "infinity")) return false;
        cursor_.skip_blanks();
        if (cursor_.peek() == ':') return false;
        terms_.push_back(name);
        data_.push_back(is_negative ? -value : value);
        return true;
    }

    /// A comparison and the number behind it, with which the row has to end.
    bool read_side(double& lower, double& upper) {
        const char first = cursor_.peek();
        cursor_.skip();
        char relation = first;
        if (is_relation(cursor_.peek())) {  // "<=" or "=<"
            if ((first == '=') == (cursor_.peek() == '=')) return false;
            if (first == '=') relation = cursor_.peek();
            cursor_.skip();
        }
        cursor_.skip_blanks();
        const bool is_negative = cursor_.take('-');
        if (!is_negative) cursor_.take('+');
        cursor_.skip_blanks();
        double value = 0.0;
        if (!cursor_.number(value) || (!cursor_.is_done() && !is_blank(cursor_.peek())))
            return false;
        if (is_negative) value = -value;
        constexpr double infinity = std::numeric_limits<double>::infinity();
        lower = relation == '<' ? -infinity : value;
        upper = relation == '>' ? infinity : value;
        cursor_.skip_blanks();  // not before another comparison, or behind an indicator
        return !is_relation(cursor_.peek()) && cursor_.peek() != '*' &&
               !(cursor_.peek() == '-' && cursor_.peek(1) == '>');
    }

    /// Finds the columns of the row's terms; new ones get the next numbers.
    void add_columns() {
        for (const auto name : terms_) {
            const auto next = static_cast<int64_t>(PyDict_GET_SIZE(dict_));
            const auto [known, is_new] = columns_.try_emplace(name, next);
            if (is_new) {
                Ref text = new_text(name), number = checked(PyLong_FromLongLong(next));
                check(PyDict_SetItem(dict_, text.get(), number.get()));
            }
            ids_.push_back(known->second);
        }
        lengths_.push_back(static_cast<int64_t>(terms_.size()));
    }

    Cursor cursor_;
    PyObject* dict_;
    Numbering columns_;
    Py_ssize_t end_ = 0;
    std::vector<std::string_view> names_, terms_;  // of all rows, and of the row being read
    std::vector<int64_t> lengths_, ids_;
    std::vector<double> data_, lower_, upper_;
};

/// Reads rows from the beginning of a text; new columns are added to the dict.
Ref plain_rows(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("plain_rows", nargs, 2, 2);
    PlainRows rows(ascii_view(args[0]), args[1]);
    rows.read();
    return rows.result();
}

}  // namespace

PyMethodDef reading_methods[] = {
    {"column_entries", method<column_entries>(), METH_FASTCALL,
     "The entries of lines with a column, a row and a number; None for lines of another form."},
    {"plain_rows", method<plain_rows>(), METH_FASTCALL,
     "The rows of a text up to the first one that isn't a plain linear one, and where that is."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace taviropy
