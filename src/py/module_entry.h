// What the three module entries share: multi-phase initialisation that happens once per process.
//
// Objects of a first import live on in user code, and a second set of equal classes would fail every isinstance test
// between them. So a second initialisation is an error. A first import that failed does not count.
#pragma once

#include "py/guard.h"
#include "py/ref.h"

namespace onnxgraft::py {

/// Runs `fill(module)` unless the module was imported before ("Module 'quant' has already been imported.
/// Re-initialisation is not supported.", RuntimeError). Sub-interpreters get an ImportError: interned names and caches
/// belong to the process, and the objects in them to the main interpreter.
int initialise_once(PyObject* module, bool& done, void (*fill)(PyObject* module)) noexcept;

/// Imports `name` from the package of `module`, whatever that package is called.
Ref import_sibling(PyObject* module, const char* name);

}  // namespace onnxgraft::py
