// The fields of a protobuf message in its wire format, as they stand there.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace onnxgraft::py {

/// One field, with its tag.
struct WireField {
  std::uint64_t number;
  std::string_view bytes;
};

/// Takes a message apart into its fields, without a look at what they hold. The bytes are to come from protobuf itself:
/// std::logic_error where they are not a message.
class WireFields {
 public:
  explicit WireFields(std::string_view message) : rest_(message) {}

  /// The next field, none at the end.
  std::optional<WireField> next();

 private:
  std::uint64_t read_number();
  void skip_content(std::uint64_t wire_type);
  std::string_view take(std::uint64_t count);

  std::string_view rest_;
};

}  // namespace onnxgraft::py
