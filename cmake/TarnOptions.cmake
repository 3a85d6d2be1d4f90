# Warnings and sanitizers, applied through an interface target so that every
# target of the project (library, tests, benchmarks, tools) agrees.
add_library(tarn_warnings INTERFACE)
target_compile_options(tarn_warnings INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra>
  $<$<COMPILE_LANGUAGE:C>:-Wall -Wextra>)
if(TARN_WERROR)
  target_compile_options(tarn_warnings INTERFACE -Werror)
endif()

if(TARN_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  # C programs that load the C++ library need clang's C++ part of UBSan too.
  if(CMAKE_C_COMPILER_ID MATCHES "Clang")
    add_link_options("$<$<LINK_LANGUAGE:C>:-fsanitize-link-c++-runtime;-lstdc++>")
  endif()
elseif(TARN_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT TARN_SANITIZE STREQUAL "")
  message(FATAL_ERROR "TARN_SANITIZE must be '', 'address' or 'thread'")
endif()
