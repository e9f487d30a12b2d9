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
  const std::size_t known = used_.size();
  const NameId id = used_.intern(name);
  return id >= known ? id : no_name;
}

}  // namespace onnxgraft::core
