// Strings <-> dense ids. Id 0 is the empty string, which in ONNX means "omitted".
//
// After reading, names are compared as ids, and arrays by id replace maps by string. Ids are given out in order
// of first sight and never taken back, so equal graphs get equal ids. Text is stored in blocks that never move,
// so views stay valid as long as the table lives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "core/chunks.h"

namespace onnxgraft::core {

using NameId = std::uint32_t;
inline constexpr NameId no_name = 0;

/// Move-only: a copy of a million names is never wanted, and its views would point into the original.
class Names {
 public:
  Names();
  Names(Names&&) noexcept = default;
  Names& operator=(Names&&) noexcept = default;
  Names(const Names&) = delete;
  Names& operator=(const Names&) = delete;
  ~Names() = default;

  /// A text that will be looked up soon. It points to the caller's memory.
  struct Hashed {
    std::string_view text;
    std::uint32_t hash;
  };

  /// The id of `text`, given out on first sight.
  NameId intern(std::string_view text) { return intern(Hashed{text, hash_of(text)}); }
  NameId intern(const Hashed& name);
  /// Starts to fetch the memory that the look-up of `text` will need. In a large graph every look-up waits for memory.
  /// The reader announces all names of a node before it looks the first one up, so that they wait at the same time.
  [[nodiscard]] Hashed announce(std::string_view text) const {
    const std::uint32_t hash = hash_of(text);
    __builtin_prefetch(&slots_[hash & (slots_.size() - 1)]);
    return {text, hash};
  }
  /// The id of `text` if it was seen before.
  [[nodiscard]] std::optional<NameId> find(std::string_view text) const;
  [[nodiscard]] std::string_view text(NameId id) const { return texts_[id]; }
  /// Number of ids, the empty name included.
  [[nodiscard]] std::size_t size() const { return texts_.size(); }
  /// Makes room for this many names. Otherwise the table would be rebuilt at every doubling on the way there.
  void reserve(std::size_t count);

 private:
  /// Eight bytes. The hash next to the id rules out nearly all other names without a look at their texts, and spares
  /// hashing all texts again when the table grows.
  struct Slot {
    std::uint32_t hash;
    NameId id;
  };
  static std::uint32_t hash_of(std::string_view text);
  [[nodiscard]] std::size_t slot_of(std::string_view text, std::uint32_t hash) const;
  std::string_view store(std::string_view text);
  void grow(std::size_t slot_count);

  static constexpr std::size_t block_size = 1U << 16U;
  // Open addressing with linear probing; the size is a power of two and at most three quarters are in use. Id 0 marks a
  // free slot, since the empty name is never stored.
  std::vector<Slot> slots_;
  Chunks<std::string_view> texts_;         // by id, views into `blocks_`
  std::vector<std::vector<char>> blocks_;  // never filled beyond what was reserved, so no text moves
};

}  // namespace onnxgraft::core
