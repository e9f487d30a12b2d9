// Tests of a data file, each with its own message.
//
// Invariant: a path that is returned is a regular file below the folder, without a link on the way. Must not know
// arrays.
#include "transform_utilities/external_file.h"

#include <charconv>
#include <system_error>

#include "py/objects.h"

namespace onnxgraft::transform_utilities {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void refuse(const ExternalLocation& where, const fs::path& path, const std::string& why) {
  py::raise(PyExc_ValueError, "tensor '%s': external data '%s': %s", where.tensor.c_str(), path.c_str(), why.c_str());
}

/// The location below the folder, as it is written; refused if it leads out of the folder.
fs::path path_below(const ExternalLocation& where, const fs::path& folder) {
  const fs::path location(where.location);
  if (location.empty()) refuse(where, location, "no location: it must name a file in the folder of the model");
  // A text with a NUL in it would name another file to the system than to the tests here.
  if (where.location.find('\0') != std::string::npos) refuse(where, location, "the location must not hold a NUL");
  if (location.is_absolute()) {
    refuse(where, location, "the location must be relative to the folder of the model, not absolute");
  }
  const fs::path normal = location.lexically_normal();
  if (normal == "." || *normal.begin() == "..") {
    refuse(where, location, "the location must stay inside the folder of the model");
  }
  return folder / normal;
}

/// Follows every link on the way: the file that is read must lie below the folder as well.
void test_containment(const ExternalLocation& where, const fs::path& path, const fs::path& folder) {
  std::error_code error;
  const fs::path real_folder = fs::canonical(folder.empty() ? fs::path(".") : folder, error);
  const fs::path real_path = error ? fs::path() : fs::canonical(path, error);
  if (error) refuse(where, path, "cannot be resolved: " + error.message());
  if (*real_path.lexically_relative(real_folder).begin() == "..") {
    refuse(where, path, "leads through a symbolic link out of the folder of the model");
  }
}

void test_file(const ExternalLocation& where, const fs::path& path, const fs::path& folder) {
  std::error_code error;
  const fs::file_status status = fs::symlink_status(path, error);
  if (error && status.type() != fs::file_type::not_found) refuse(where, path, "cannot be opened: " + error.message());
  if (status.type() == fs::file_type::not_found) {
    py::raise(PyExc_FileNotFoundError,
              "tensor '%s': external data '%s' does not exist: put the file there, or name the folder of the model "
              "with external_data_folder()",
              where.tensor.c_str(), path.c_str());
  }
  if (status.type() == fs::file_type::symlink) refuse(where, path, "must be a file, not a symbolic link");
  if (status.type() != fs::file_type::regular) refuse(where, path, "must be a regular file");
  test_containment(where, path, folder);
  const std::uintmax_t names = fs::hard_link_count(path, error);
  if (!error && names > 1) {
    refuse(where, path, "has " + std::to_string(names) + " hard links, so that it may be any file: make it a copy");
  }
}

std::uint64_t number(const ExternalLocation& where, const fs::path& path, const char* key, const std::string& digits) {
  std::uint64_t value = 0;
  const char* end = digits.data() + digits.size();
  const auto [stopped_at, error] = std::from_chars(digits.data(), end, value);
  if (error != std::errc{} || stopped_at != end || digits.empty()) {
    refuse(where, path, std::string(key) + " '" + digits + "' must be a whole number of bytes, zero or more");
  }
  return value;
}

}  // namespace

FileRange checked_range(const ExternalLocation& where, const fs::path& folder) {
  const fs::path path = path_below(where, folder);
  test_file(where, path, folder);
  std::error_code error;
  const std::uint64_t size = fs::file_size(path, error);
  if (error) refuse(where, path, "size cannot be read: " + error.message());
  const std::uint64_t offset = where.offset ? number(where, path, "offset", *where.offset) : 0;
  if (offset > size) {
    refuse(where, path,
           "offset " + std::to_string(offset) + " is beyond the end of the file, which has " + std::to_string(size) +
               " bytes");
  }
  const std::uint64_t length = where.length ? number(where, path, "length", *where.length) : size - offset;
  if (length > size - offset) {
    refuse(where, path,
           "length " + std::to_string(length) + " from offset " + std::to_string(offset) +
               " must fit into the file, which has " + std::to_string(size) + " bytes");
  }
  return {path, offset, length};
}

}  // namespace onnxgraft::transform_utilities
