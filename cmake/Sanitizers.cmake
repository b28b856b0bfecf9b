# SANITIZE=ON builds everything with AddressSanitizer and UndefinedBehaviorSanitizer.
option(SANITIZE "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
if(SANITIZE)
  # Not vptr: that check looks at memory through pipe(2) and write(2), which tests make fail.
  add_compile_options(-fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
if(BUILD_FUZZERS)
  # The fuzzer's main program is linked into the fuzz targets only.
  add_compile_options(-fsanitize=fuzzer-no-link)
  add_link_options(-fsanitize=fuzzer-no-link)
endif()
