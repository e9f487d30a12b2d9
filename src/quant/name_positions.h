// Positions by name, eight bytes each: a table of hashes that is filled once, sorted, and asked often.
//
// It answers where a name may stand. Equal hashes are not equal names, so who asks looks there.
#pragma once

#include <cstdint>
#include <limits>
#include <span>
#include <string_view>
#include <vector>

namespace onnxgraft::quant {

class NamePositions {
 public:
  using Hash = std::uint32_t;
  using Position = std::uint32_t;

  /// For a name that is there, but in no place of its own.
  static constexpr Position nowhere = std::numeric_limits<Position>::max();

  static Hash hash_of(std::string_view name);

  void add(std::string_view name, Position position) { entries_.push_back({hash_of(name), position}); }
  /// To be called between the last `add` and the first `find`.
  void sort();

  struct Entry {
    Hash hash;
    Position position;
    auto operator<=>(const Entry&) const = default;
  };
  /// All entries that may be of that name, by position, none twice.
  [[nodiscard]] std::span<const Entry> find(std::string_view name) const;

 private:
  std::vector<Entry> entries_;
};

}  // namespace onnxgraft::quant
