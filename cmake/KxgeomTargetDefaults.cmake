# Per-target build settings shared by the library, tests, tools and
# benchmarks. Applied target by target rather than through global flags.
function(kxgeom_target_defaults target)
  target_compile_features(${target} PRIVATE cxx_std_17)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF POSITION_INDEPENDENT_CODE ON)
  if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    target_compile_options(${target} PRIVATE -Wall -Wextra)
  endif()
  if(KXGEOM_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${KXGEOM_SANITIZE} -fno-sanitize-recover=all
                           -fno-omit-frame-pointer -g)
    # g++ 12's flow analysis misreads sanitizer instrumentation inside
    # libstdc++ (std::function in <regex>) as uninitialised reads.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized)
    endif()
    target_link_options(${target} PRIVATE -fsanitize=${KXGEOM_SANITIZE})
  endif()
endfunction()
