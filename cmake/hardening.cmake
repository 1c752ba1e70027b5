# Sanitizers for the development presets; for all others what keeps a daemon hard to break:
# position independence, full RELRO, stack protector, FORTIFY.
if(LUMD_SANITIZE)
  add_compile_options(-fsanitize=${LUMD_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${LUMD_SANITIZE})
else()
  add_compile_options(-fstack-protector-strong)
  add_compile_options($<$<CONFIG:Release>:-D_FORTIFY_SOURCE=2>)
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES C CXX)
  add_link_options(-Wl,-z,relro,-z,now)
endif()
