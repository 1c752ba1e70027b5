# Compiles against musl, the C library of OpenWrt, to objects: Debian has musl's headers but no
# libstdc++ built for it, so nothing can be linked. musl's headers stand in place of glibc's, under
# libstdc++'s own; of the host's other headers only those that scripts/musl linked into the folder
# LUMD_MUSL_HEADERS are seen.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LUMD_MUSL_HEADERS)
set(CMAKE_C_LINK_EXECUTABLE "<CMAKE_COMMAND> -E touch <TARGET>")
set(CMAKE_CXX_LINK_EXECUTABLE "<CMAKE_COMMAND> -E touch <TARGET>")
set(CMAKE_CXX_CREATE_SHARED_LIBRARY "<CMAKE_COMMAND> -E touch <TARGET>")

execute_process(COMMAND gcc -dumpmachine
                OUTPUT_VARIABLE machine OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND gcc -print-file-name=include
                OUTPUT_VARIABLE compiler_headers OUTPUT_STRIP_TRAILING_WHITESPACE)
string(REPLACE -gnu -musl musl_machine ${machine})
execute_process(COMMAND g++ -dumpversion
                OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE)
set(c_headers "-isystem ${compiler_headers} -isystem /usr/include/${musl_machine}")
string(APPEND c_headers " -isystem ${LUMD_MUSL_HEADERS}")
set(cxx_headers "-isystem /usr/include/c++/${version}")
string(APPEND cxx_headers " -isystem /usr/include/${machine}/c++/${version}")
set(CMAKE_C_FLAGS_INIT "-nostdinc ${c_headers}")
set(CMAKE_CXX_FLAGS_INIT "-nostdinc -nostdinc++ ${cxx_headers} ${c_headers}")
string(APPEND CMAKE_CXX_FLAGS_INIT " -include ${CMAKE_CURRENT_LIST_DIR}/../musl/libstdcxx.h")
