# What an access point runs is built for size: its work is waiting, system calls and json-c, and the
# flash is small. docs/footprint.md has the measurements behind each of these flags.
set(CMAKE_C_FLAGS_RELEASE "-Os -DNDEBUG")
set(CMAKE_CXX_FLAGS_RELEASE "-Os -DNDEBUG")
add_compile_options($<$<CONFIG:Release>:-ffunction-sections> $<$<CONFIG:Release>:-fdata-sections>)
add_link_options($<$<CONFIG:Release>:-Wl,--gc-sections>)
