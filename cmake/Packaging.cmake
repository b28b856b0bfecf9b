# Debian packages, one for each component of Install.cmake. Built by scripts/package.
set(PACKAGE_MAINTAINER "Main-CPU software loader developers <root@localhost>"
  CACHE STRING "Who answers for the packages")

# gzip, tar, coreutils and util-linux are on every Debian system.
set(host_dependencies
  "maincpuloader (= ${PROJECT_VERSION}), mount, e2fsprogs, dosfstools, fdisk")
if(CMAKE_CROSSCOMPILING)
  # The machine's package database does not know the unit's libraries, nor their versions.
  set(runtime "libc6, libgcc-s1, libstdc++6")
  set(CPACK_DEBIAN_MODULE_PACKAGE_DEPENDS "${runtime}")
  string(APPEND host_dependencies ", ${runtime}, libevent-core-2.1-7")
  execute_process(
    COMMAND dpkg-architecture -f -t ${CMAKE_LIBRARY_ARCHITECTURE} -q DEB_HOST_ARCH
    OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE)
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME maincpuloader)
set(CPACK_PACKAGE_VENDOR "${PROJECT_NAME}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_PACKAGE_CONTACT "${PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL module featurehost dev)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_MODULE_PACKAGE_NAME maincpuloader)
set(CPACK_DEBIAN_MODULE_PACKAGE_SECTION admin)
# Not for hosts on units whose tools come from elsewhere, such as BusyBox.
set(CPACK_DEBIAN_MODULE_PACKAGE_RECOMMENDS "mount, e2fsprogs, dosfstools, fdisk")
set(CPACK_COMPONENT_MODULE_DESCRIPTION
  "Feature module that installs software on a main CPU's storage
A shared library that a feature host loads and drives by events. It unpacks
archives, writes and checks raw images, and restores factory data and
end-of-line settings, with the system's own tools.")

set(CPACK_DEBIAN_FEATUREHOST_PACKAGE_NAME featurehost)
set(CPACK_DEBIAN_FEATUREHOST_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_FEATUREHOST_PACKAGE_DEPENDS "${host_dependencies}")
set(CPACK_COMPONENT_FEATUREHOST_DESCRIPTION
  "Host for feature modules, for workbenches and units without one
Loads the feature module, plays the update control, and shows progress and
results. Whatever a run leaves behind, it reports and cleans up.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME featurehost-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "maincpuloader, featurehost")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "Contract between feature modules and their hosts
The headers that both are built against, with a CMake package and a
pkg-config file, the integration guide, and an example of each.")

include(CPack)
