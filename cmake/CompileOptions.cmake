# The compile options of every target of the project.
# Hidden visibility: three extension files contain the static libraries, and none may see another's copy.

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")

function(onnxgraft_compile_options target)
  set_target_properties(${target} PROPERTIES
    CXX_STANDARD 20
    CXX_STANDARD_REQUIRED ON
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion
    -Wold-style-cast -Wno-missing-field-initializers)
  if(ONNXGRAFT_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(ONNXGRAFT_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${ONNXGRAFT_SANITIZE} -fno-omit-frame-pointer)
    target_link_options(${target} PUBLIC -fsanitize=${ONNXGRAFT_SANITIZE})
  endif()
endfunction()
