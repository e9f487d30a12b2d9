// The notation of one pattern or replacement string, as text.
//
//   node        := op ":" [input ("," input)*] "->" id
//   op          := a name without ':' and blanks
//   input       := id ["i"] | "~i"            ("~i" last, patterns only)
//   id          := decimal digits
//   replacement := node | "#" k | "#" k ":" [input ("," input)*] "->" id
//
// A string is read without the list around it; rule.h checks strings against each other. Ids stay text: "2" and "02"
// are different tensors.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace onnxgraft::core {

/// The list that a string belongs to and its index there. Every error message begins with it.
struct StringPlace {
  enum class List { pattern, replacement } list;
  std::size_t index;
  std::string_view text;
};

struct ParsedInput {
  std::string_view id;
  bool initializer;    // written with the suffix "i"
  std::size_t column;  // from 1
};

/// One string, taken apart. The views point into the text that was parsed. Columns are kept because some errors are
/// found only later, against the other strings of the list.
struct ParsedString {
  std::string_view op;                // empty for a "#" string
  std::optional<std::size_t> source;  // the k of "#k"
  std::size_t source_column = 0;
  bool bare = false;  // "#k" without links
  std::vector<ParsedInput> inputs;
  bool rest = false;  // ends in "~i"
  std::string_view output;
  std::size_t output_column = 0;
};

/// Throws NotationError that names list, index, column and what was expected.
ParsedString parse_string(const StringPlace& place);

/// Throws NotationError with the place before the message; column 0 means the whole string.
[[noreturn]] void fail_at(const StringPlace& place, std::size_t column, const std::string& message);

}  // namespace onnxgraft::core
