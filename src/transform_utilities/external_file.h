// Which part of which file holds a tensor, and whether it may be read.
//
// A model names its data files itself, so a model from elsewhere must not reach files outside its own folder.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace onnxgraft::transform_utilities {

/// What the tensor says of its data.
struct ExternalLocation {
  std::string tensor;  // its name, for messages
  std::string location;
  std::optional<std::string> offset;  // decimal digits, as stored
  std::optional<std::string> length;
};

/// A part of a file that was found to be readable.
struct FileRange {
  std::filesystem::path path;
  std::uint64_t offset;
  std::uint64_t length;
};

/// Finds and tests the range. ValueError names tensor, file and rule; FileNotFoundError if there is no file.
FileRange checked_range(const ExternalLocation& where, const std::filesystem::path& folder);

}  // namespace onnxgraft::transform_utilities
