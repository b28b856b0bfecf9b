# The unit: 32-bit ARM Linux, hard float, with Debian's cross compiler.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# Everything is built with one compiler; its notes about older ones help nobody.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# Libraries for the unit, as scripts/unit-packages unpacks them. The C and C++ libraries are the
# compiler's own.
if(DEFINED ENV{UNIT_CACHE})
  set(unit_cache "$ENV{UNIT_CACHE}")
else()
  set(unit_cache "${CMAKE_CURRENT_LIST_DIR}/../../build/unit")
endif()
get_filename_component(unit_sysroot "${unit_cache}/sysroot" ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH "${unit_sysroot}")
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES
  "${unit_sysroot}/usr/include" "${unit_sysroot}/usr/include/arm-linux-gnueabihf")
set(ENV{PKG_CONFIG_LIBDIR}
  "${unit_sysroot}/usr/lib/arm-linux-gnueabihf/pkgconfig:${unit_sysroot}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${unit_sysroot}")

# Programs of the unit run here under user-mode emulation.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L /usr/arm-linux-gnueabihf)
