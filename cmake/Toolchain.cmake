# Warnings, -Werror for CI, sanitizers and ccache; shared by every target
# through the sv_build_flags interface library.
find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  set(CMAKE_C_COMPILER_LAUNCHER "${CCACHE_PROGRAM}")
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE_PROGRAM}")
endif()

add_library(sv_build_flags INTERFACE)
target_compile_options(sv_build_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wcast-align
  -Wno-missing-field-initializers)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 reports false positives in libstdc++ headers at -O2.
  target_compile_options(sv_build_flags INTERFACE -Wno-maybe-uninitialized -Wno-stringop-overflow
    -Wno-array-bounds -Wno-restrict)
endif()
if(SV_WERROR)
  target_compile_options(sv_build_flags INTERFACE -Werror)
endif()

if(SV_SANITIZE)
  string(REPLACE ";" "," _sv_san "${SV_SANITIZE}")
  add_compile_options(-fsanitize=${_sv_san} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=${_sv_san})
  if(SV_SANITIZE STREQUAL "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Asio's fenced blocks use atomic_thread_fence, which GCC warns about under TSan.
    add_compile_options(-Wno-tsan)
  endif()
endif()
