// New names that differ from every name of the graph.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

#include "core/names.h"

namespace onnxgraft::core {

class FreshNames {
 public:
  /// `used` must hold every name of the graph; new ones are added to it.
  explicit FreshNames(Names& used) : used_(used) {}

  /// `base` itself if it is free, else the first free one of base_1, base_2, ...
  NameId make(const std::string& base);

 private:
  /// The id of the name, `no_name` if it was there before.
  NameId add(const std::string& name);

  Names& used_;
  std::unordered_map<std::string, std::size_t> next_;  // per base, the first number not tried yet
};

}  // namespace onnxgraft::core
