// Fresh names in one look-up each.
//
// The id that `intern` returns shows whether the name is new: it is then not below the old number of names. So a
// name is hashed once, where a question and then an insertion would hash it twice.
#include "core/fresh_names.h"

namespace onnxgraft::core {

NameId FreshNames::make(const std::string& base) {
  if (const NameId id = add(base); id != no_name) return id;
  std::size_t& number = next_.try_emplace(base, 1).first->second;
  while (true) {
    if (const NameId id = add(base + "_" + std::to_string(number++)); id != no_name) return id;
  }
}

NameId FreshNames::add(const std::string& name) {
  const std::size_t known = names_.size();
  const NameId id = names_.intern(name);
  return id >= known ? id : no_name;
}

}  // namespace onnxgraft::core
