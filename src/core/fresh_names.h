// New names that differ from every name of the graph.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/names.h"

namespace onnxgraft::core {

class FreshNames {
 public:
  /// `names` must hold every name of the graph, and may hold others where `vacant` says so; new ones are added.
  FreshNames(Names& names, std::vector<bool>& vacant) : names_(names), vacant_(vacant) {}

  /// `base` itself if it is free, else the first free one of base_1, base_2, ...
  NameId make(const std::string& base);

 private:
  /// The id of the name, `no_name` if it is in use.
  NameId add(const std::string& name);

  Names& names_;
  std::vector<bool>& vacant_;
  std::unordered_map<std::string, std::size_t> next_;  // per base, the first number not tried yet
};

}  // namespace onnxgraft::core
