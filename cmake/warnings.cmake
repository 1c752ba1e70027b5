# Every target of the tree is built with these; headers of libraries are not ours to warn about.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety>)
endif()
