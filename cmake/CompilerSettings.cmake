# One interface target carries what every translation unit is compiled with.
add_library(xrdefrag_settings INTERFACE)
target_compile_options(xrdefrag_settings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  # The fuzzers' compiler sees more in the library's headers than they were written for.
  $<IF:$<CXX_COMPILER_ID:Clang>,-Wno-deprecated-declarations;-Wno-sign-conversion,-Werror>
  # Source paths in internal errors are relative to the source root.
  -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/src/=
  # Panics print a stack that is walked by frame pointer.
  -fno-omit-frame-pointer)
# Panics name the functions on the stack, which takes their names to be in the dynamic table.
target_link_options(xrdefrag_settings INTERFACE -rdynamic)
target_compile_definitions(xrdefrag_settings INTERFACE
  _FILE_OFFSET_BITS=64 $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)

if(XRDEFRAG_SANITIZE)
  target_compile_options(xrdefrag_settings INTERFACE
    -fsanitize=${XRDEFRAG_SANITIZE} -fno-sanitize-recover=all
    # g++ 12 follows values badly through what sanitizers add, the library's own included; the
    # release build has this warning on.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(xrdefrag_settings INTERFACE -fsanitize=${XRDEFRAG_SANITIZE})
endif()
