// The fields of a protobuf message in its wire format.
//
// The reader uses it to take names from a node without an object per field, the encoder to copy a node with other
// links. It knows field boundaries only: contents are passed on as they are. Bytes must come from protobuf itself, and
// outlive the views.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace onnxgraft::py {

/// Field numbers of a node in onnx.proto.
namespace node_field {
inline constexpr std::uint8_t input = 1;
inline constexpr std::uint8_t output = 2;
inline constexpr std::uint8_t name = 3;
inline constexpr std::uint8_t op_type = 4;
inline constexpr std::uint8_t attribute = 5;
inline constexpr std::uint8_t domain = 7;
}  // namespace node_field

/// One field: its number, all its bytes with the tag, and for strings and messages the content.
struct WireField {
  std::uint64_t number;
  std::string_view bytes;
  std::string_view content;
};

/// Takes a message apart into its fields. std::logic_error if the bytes are not a message.
class WireFields {
 public:
  explicit WireFields(std::string_view message) : rest_(message) {}

  /// The next field, none at the end.
  std::optional<WireField> next();

 private:
  std::uint64_t read_number();
  /// The content of a string or message, otherwise empty.
  std::string_view take_content(std::uint64_t wire_type);
  std::string_view take(std::uint64_t count);

  std::string_view rest_;
};

/// Whether an attribute, in wire format, holds one graph or several.
bool holds_graph(std::string_view attribute);

/// Whether nodes of the operator usually hold whole tensors or graphs. To read or copy these as bytes would copy the
/// contents without need.
bool may_be_large(std::string_view op);

}  // namespace onnxgraft::py
