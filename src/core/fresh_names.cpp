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
  if (id >= known) return id;
  if (id >= vacant_.size() || !vacant_[id]) return no_name;
  vacant_[id] = false;
  return id;
}

}  // namespace onnxgraft::core
