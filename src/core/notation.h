// The notation of one pattern or replacement string, as text.
//
//   node        := op ":" [input ("," input)*] "->" id
//   op          := a name without ':' and blanks
//   input       := id ["i"] | "~i"            ("~i" last, patterns only)
//   id          := decimal digits
//   replacement := node | "#" k | "#" k ":" [input ("," input)*] "->" id
//
// This file knows nothing of the list that a string stands in; rule.h checks strings against each other.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace onnxgraft::core {

/// Which list a string stands in, and where: what an error message names.
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

/// One string, taken apart; the views point into the text that was parsed.
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

/// Throws NotationError naming list, position, column and what was expected.
ParsedString parse_string(const StringPlace& place);

/// Throws NotationError with the place in front of the message; column 0 stands for the whole string.
[[noreturn]] void fail_at(const StringPlace& place, std::size_t column, const std::string& message);

}  // namespace onnxgraft::core
