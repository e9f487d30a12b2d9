// Strings <-> dense ids. Id 0 is the empty string, which in ONNX means "omitted".
//
// Text is stored in blocks that never move, so views stay valid as long as the table lives.
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

class Names {
 public:
  Names();
  Names(Names&&) noexcept = default;
  Names& operator=(Names&&) noexcept = default;
  Names(const Names&) = delete;
  Names& operator=(const Names&) = delete;
  ~Names() = default;

  /// A text to be looked up soon.
  struct Hashed {
    std::string_view text;
    std::uint32_t hash;
  };

  /// The id of `text`, given out on first sight.
  NameId intern(std::string_view text) { return intern(Hashed{text, hash_of(text)}); }
  NameId intern(const Hashed& name);
  /// Begins to bring up the memory that a look-up will need. In a large graph each look-up waits for it; of several
  /// texts that are announced first, all wait at the same time.
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
  /// Makes room for this many names, so that the table of look-ups need not grow through all smaller sizes.
  void reserve(std::size_t count);

 private:
  /// The hash beside the id tells most others apart without a look at their texts.
  struct Slot {
    std::uint32_t hash;
    NameId id;
  };
  static std::uint32_t hash_of(std::string_view text);
  [[nodiscard]] std::size_t slot_of(std::string_view text, std::uint32_t hash) const;
  std::string_view store(std::string_view text);
  void grow(std::size_t slot_count);

  static constexpr std::size_t block_size = 1U << 16U;
  std::vector<Slot> slots_;  // open addressing; id 0 is free, since the empty name is never looked up here
  Chunks<std::string_view> texts_;
  std::vector<std::vector<char>> blocks_;
};

}  // namespace onnxgraft::core
