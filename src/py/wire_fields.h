// The fields of a protobuf message in its wire format, in the order of the bytes.
//
// The reader looks at nodes this way, and the encoder copies them. Views point into the message, which must outlive
// them.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace onnxgraft::py {

/// Field numbers of a node, as onnx.proto gives them.
namespace node_field {
inline constexpr std::uint8_t input = 1;
inline constexpr std::uint8_t output = 2;
inline constexpr std::uint8_t name = 3;
inline constexpr std::uint8_t op_type = 4;
inline constexpr std::uint8_t attribute = 5;
inline constexpr std::uint8_t domain = 7;
}  // namespace node_field

/// One field, with its tag; of strings and messages, what they hold.
struct WireField {
  std::uint64_t number;
  std::string_view bytes;
  std::string_view content;
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
  /// What a string or message holds, otherwise nothing.
  std::string_view take_content(std::uint64_t wire_type);
  std::string_view take(std::uint64_t count);

  std::string_view rest_;
};

/// Whether an attribute, in wire format, holds a graph or several.
bool holds_graph(std::string_view attribute);

/// Whether nodes of the operator hold whole tensors or graphs: as bytes they would be copied without need.
bool may_be_large(std::string_view op);

}  // namespace onnxgraft::py
