// Parsing tags and lengths. Groups are skipped as a whole: old messages may have them as unknown fields.
//
// Every read is checked against the end of the bytes, so a damaged message is an error and never a read beyond it.
#include "py/wire_fields.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace onnxgraft::py {

namespace {

constexpr std::uint64_t wire_type_bits = 3;
constexpr std::uint64_t wire_type_mask = 7;

enum WireType : std::uint8_t { variable, eight_bytes, length_delimited, begin_group, end_group, four_bytes };

}  // namespace

std::optional<WireField> WireFields::next() {
  if (rest_.empty()) return std::nullopt;
  const std::string_view begin = rest_;
  const std::uint64_t tag = read_number();
  const std::string_view content = take_content(tag & wire_type_mask);
  return WireField{tag >> wire_type_bits, begin.substr(0, begin.size() - rest_.size()), content};
}

/// Seven bits per byte, the lowest first. The eighth bit means that more bytes follow.
std::uint64_t WireFields::read_number() {
  constexpr unsigned bits = 7;
  constexpr unsigned most_bits = 64;
  std::uint64_t value = 0;
  for (unsigned shift = 0; shift < most_bits; shift += bits) {
    const auto byte = static_cast<unsigned char>(take(1).front());
    value |= static_cast<std::uint64_t>(byte & 0x7FU) << shift;
    if (byte < 0x80U) return value;
  }
  throw std::logic_error("a number in a message has more than 64 bits");
}

std::string_view WireFields::take_content(std::uint64_t wire_type) {
  switch (wire_type) {
    case variable:
      read_number();
      return {};
    case eight_bytes:
      take(8);
      return {};
    case length_delimited:
      return take(read_number());
    case four_bytes:
      take(4);
      return {};
    case begin_group:
      while (true) {
        const std::uint64_t inner = read_number() & wire_type_mask;
        if (inner == end_group) return {};
        take_content(inner);
      }
    default:
      throw std::logic_error("a message holds a field of unknown kind");
  }
}

std::string_view WireFields::take(std::uint64_t count) {
  if (count > rest_.size()) throw std::logic_error("a message ends inside of a field");
  const std::string_view taken = rest_.substr(0, count);
  rest_.remove_prefix(count);
  return taken;
}

bool holds_graph(std::string_view attribute) {
  constexpr std::uint64_t graph = 6;
  constexpr std::uint64_t graphs = 11;
  WireFields fields(attribute);
  while (const auto field = fields.next()) {
    if (field->number == graph || field->number == graphs) return true;
  }
  return false;
}

bool may_be_large(std::string_view op) {
  constexpr auto large = std::to_array<std::string_view>({"Constant", "If", "Loop", "Scan", "SequenceMap"});
  return std::ranges::find(large, op) != large.end();
}

}  // namespace onnxgraft::py
