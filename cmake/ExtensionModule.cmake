# onnxgraft_extension_module(<name> <sources>...): one CPython extension file on top of the core and the interpreter
# layer, which exports only PyInit_<name>. Hidden visibility alone would still export instantiations of the standard
# library's templates, and two modules in one process would share them by accident. The linker's version script
# prevents that.

function(onnxgraft_extension_module name)
  Python_add_library(${name} MODULE WITH_SOABI ${ARGN})
  target_link_libraries(${name} PRIVATE onnxgraft_py onnxgraft_core)
  onnxgraft_compile_options(${name})
  set(exports "${CMAKE_CURRENT_BINARY_DIR}/${name}.exports")
  file(CONFIGURE OUTPUT "${exports}" CONTENT "{ global: PyInit_@name@; local: *; };\n" @ONLY)
  target_link_options(${name} PRIVATE "LINKER:--version-script=${exports}" "LINKER:--gc-sections")
  set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS "${exports}")
endfunction()
