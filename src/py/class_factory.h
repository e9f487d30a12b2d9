// Makes a class from a declarative row, as a `class` statement would: it calls the metaclass of the first base with
// name, bases and namespace.
//
// The order of lists and methods in the row is their order in `vars(cls)`. Nothing here knows what the classes are for:
// rows come from the catalogue as data.
#pragma once

#include <span>

#include "py/function.h"

namespace onnxgraft::py {

/// A class attribute that holds a list of pattern strings (annotated "[str]").
struct PatternList {
  const char* name;
  std::span<const char* const> strings;
};

struct ClassRow {
  const char* name;
  std::span<const char* const> bases;  // names, looked up in the module
  const char* doc = nullptr;           // stored to the letter; null: the class has none
  std::span<const PatternList> lists;
  std::span<const FunctionRow> methods;
};

/// Makes the class and puts it into the module under its name. An abstract method goes through
/// `abc.abstractmethod`, which the module must have under that name.
void add_class(PyObject* module, PyObject* function_type, const ClassRow& row);

/// Makes a module-level function and puts it into the module.
void add_function(PyObject* module, PyObject* function_type, const FunctionRow& row);

}  // namespace onnxgraft::py
