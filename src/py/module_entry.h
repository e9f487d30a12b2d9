// What the three module entries share: multi-phase initialisation that happens once per process.
#pragma once

#include "py/guard.h"
#include "py/ref.h"

namespace onnxgraft::py {

/// Runs `fill(module)` unless the module was imported before ("Module 'quant' has already been imported.
/// Re-initialisation is not supported.", RuntimeError). Objects made by a first import live on in user code,
/// and a second set of equal classes would fail every isinstance test between them. A failed import does
/// not count. Sub-interpreters get an ImportError: names and caches belong to the process, their objects to the main
/// interpreter.
int initialise_once(PyObject* module, bool& done, void (*fill)(PyObject* module)) noexcept;

/// Imports `name` from the package that `module` lives in.
Ref import_sibling(PyObject* module, const char* name);

}  // namespace onnxgraft::py
