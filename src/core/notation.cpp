// A recursive-descent parser for one string, by hand: the grammar has five rules, and users need the exact column.
//
// It never reads past the text, which is a view without a terminator. Input may be any bytes (the fuzzer feeds it
// some), so digits and blanks are tested without the locale. Each message states what would be right at the column.
#include "core/notation.h"

#include <charconv>

#include "core/errors.h"

namespace onnxgraft::core {

namespace {

// The standard functions would depend on the locale and are undefined for negative values of char.
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

class Parser {
 public:
  explicit Parser(const StringPlace& place) : place_(place), text_(place.text) {}

  ParsedString run() {
    ParsedString result;
    if (peek() == '#') {
      parse_source(result);
      if (result.bare) return result;
    } else {
      parse_operator(result);
    }
    parse_inputs(result);
    result.output_column = column();
    result.output = digits("a tensor id (decimal digits) after '->'");
    if (at_ < text_.size()) fail("nothing after the output id: a node has exactly one output");
    return result;
  }

 private:
  void parse_source(ParsedString& result) {
    if (place_.list == StringPlace::List::pattern) fail("an operator name: '#' is allowed in replacements only");
    ++at_;
    result.source_column = column();
    const std::string_view number = digits("the number of a pattern node after '#'");
    std::size_t value = 0;
    const auto parsed = std::from_chars(number.data(), number.data() + number.size(), value);
    // A number too large for the machine is too large for any pattern, and rule.cpp reports the range.
    result.source = parsed.ec == std::errc{} ? value : static_cast<std::size_t>(-1);
    if (at_ == text_.size()) {
      result.bare = true;
      return;
    }
    if (peek() != ':') fail("':' or the end of the string after '#" + std::string(number) + "'");
    ++at_;
  }

  /// Any name is an operator: which ones exist is up to the model.
  void parse_operator(ParsedString& result) {
    const std::size_t begin = at_;
    while (at_ < text_.size() && text_[at_] != ':' && !is_blank(text_[at_])) ++at_;
    if (at_ == begin) fail("an operator name");
    if (peek() != ':') fail("':' after the operator name");
    result.op = text_.substr(begin, at_ - begin);
    ++at_;
  }

  void parse_inputs(ParsedString& result) {
    if (take_arrow()) return;
    while (true) {
      if (peek() == '~') {
        parse_rest(result);
        return;
      }
      const std::size_t where = column();
      const std::string_view id = digits("a tensor id (decimal digits)");
      const bool initializer = peek() == 'i';
      if (initializer) ++at_;
      result.inputs.push_back({id, initializer, where});
      if (take_arrow()) return;
      if (peek() != ',') fail("',' or '->' after an input");
      ++at_;
    }
  }

  /// "~i" must be last: it takes all inputs from its place on.
  void parse_rest(ParsedString& result) {
    if (place_.list == StringPlace::List::replacement) fail("a tensor id: '~i' is allowed in patterns only");
    ++at_;
    if (peek() != 'i') fail("'i' after '~'");
    ++at_;
    if (!take_arrow()) fail("'->' after '~i', which must be the last input");
    result.rest = true;
  }

  bool take_arrow() {
    if (text_.substr(at_, 2) != "->") return false;
    at_ += 2;
    return true;
  }

  /// A run of digits of any length. An id is text, so it cannot overflow.
  std::string_view digits(const char* expected) {
    const std::size_t begin = at_;
    while (at_ < text_.size() && is_digit(text_[at_])) ++at_;
    if (at_ == begin) fail(expected);
    return text_.substr(begin, at_ - begin);
  }

  /// '\0' at the end of the text. No caller compares with it, so a NUL within the text is not mistaken for the end.
  [[nodiscard]] char peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
  [[nodiscard]] std::size_t column() const { return at_ + 1; }
  [[noreturn]] void fail(const std::string& expected) const { fail_at(place_, column(), "expected " + expected); }

  const StringPlace& place_;
  std::string_view text_;
  std::size_t at_ = 0;
};

}  // namespace

ParsedString parse_string(const StringPlace& place) { return Parser(place).run(); }

void fail_at(const StringPlace& place, std::size_t column, const std::string& message) {
  std::string text = place.list == StringPlace::List::pattern ? "pattern" : "replacement";
  text += " string " + std::to_string(place.index) + " (\"" + std::string(place.text) + "\")";
  if (column != 0) text += ", column " + std::to_string(column);
  throw NotationError(text + ": " + message);
}

}  // namespace onnxgraft::core
