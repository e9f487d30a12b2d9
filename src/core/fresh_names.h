// New names that differ from every name of the graph.
//
// Names depend on the graph and the order of calls only, so the same graph always gets the same names. A round may ask
// for thousands of names with one base. Each base therefore remembers the first number that was not tried: otherwise
// the n-th name would look at n numbers. The splice plan decides what a good base is.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

#include "core/names.h"

namespace onnxgraft::core {

class FreshNames {
 public:
  /// `names` must hold every name of the graph. New names are added to it.
  explicit FreshNames(Names& names) : names_(names) {}

  /// `base` itself if it is free, else the first free one of base_1, base_2, ...
  NameId make(const std::string& base);

 private:
  /// Takes the name if it is free; `no_name` if it is in use.
  NameId add(const std::string& name);

  Names& names_;
  std::unordered_map<std::string, std::size_t> next_;  // per base, the first number not tried yet
};

}  // namespace onnxgraft::core
