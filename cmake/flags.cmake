# What every target of the project is compiled with. Word size, sanitizers and compiler come from the presets.
add_library(traiklofox_flags INTERFACE)
target_compile_definitions(traiklofox_flags INTERFACE _GNU_SOURCE)
target_compile_options(traiklofox_flags INTERFACE -Wall -Wextra -Wshadow -Wconversion)
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize")  # for their reports; elsewhere it costs 32-bit code one of its few registers
  target_compile_options(traiklofox_flags INTERFACE -fno-omit-frame-pointer)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(traiklofox_flags INTERFACE -Wthread-safety -Wthread-safety-beta)
endif()
# What a program has run is written when it ends. Its own fork and exec do without: in a child that shares its parent's
# memory, as one between vfork and exec does, they would take the parent's counts for written.
if(TRAIKLOFOX_COVERAGE)
  set(without_wrappers fork execl execle execlp execv execve execvp)
  list(TRANSFORM without_wrappers PREPEND -fno-builtin-)
  target_compile_options(traiklofox_flags INTERFACE --coverage -O0 ${without_wrappers})
  target_link_options(traiklofox_flags INTERFACE --coverage)
endif()
