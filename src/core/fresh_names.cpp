#include "core/fresh_names.h"

namespace onnxgraft::core {

NameId FreshNames::make(const std::string& base) {
  if (!base.empty() && !used_.find(base)) return used_.intern(base);
  std::size_t& number = next_.try_emplace(base, 1).first->second;
  while (true) {
    const std::string name = base + "_" + std::to_string(number++);
    if (!used_.find(name)) return used_.intern(name);
  }
}

}  // namespace onnxgraft::core
