# What "cmake --install" puts where, in three components, one for each package:
#   module       the feature module, in the folder where hosts look for feature modules
#   featurehost  the stand-alone host
#   dev          the contract's headers, and what finds them
include(CMakePackageConfigHelpers)

set(contract_headers ${CMAKE_INSTALL_INCLUDEDIR}/featurehost)
set(contract_cmake ${CMAKE_INSTALL_LIBDIR}/cmake/featurehost)

install(TARGETS maincpuloader COMPONENT module DESTINATION ${FEATURE_MODULES})

if(BUILD_FEATUREHOST)
  install(TARGETS featurehost COMPONENT featurehost DESTINATION ${CMAKE_INSTALL_BINDIR})
  set(completion ${PROJECT_SOURCE_DIR}/featurehost/completion/featurehost.bash)
  if(EXISTS ${completion})
    install(FILES ${completion} RENAME featurehost COMPONENT featurehost
      DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  endif()
endif()

# Included as "host/Event.h", like everywhere in this project.
file(GLOB headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/host/*.h)
install(FILES ${headers} COMPONENT dev DESTINATION ${contract_headers}/host)

install(TARGETS host_contract EXPORT featurehostTargets)
install(EXPORT featurehostTargets COMPONENT dev
  NAMESPACE featurehost:: DESTINATION ${contract_cmake})
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/packaging/featurehostConfig.cmake.in featurehostConfig.cmake
  INSTALL_DESTINATION ${contract_cmake}
  PATH_VARS FEATURE_MODULES
  NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(featurehostConfigVersion.cmake
  COMPATIBILITY SameMinorVersion ARCH_INDEPENDENT)
install(
  FILES
    ${CMAKE_CURRENT_BINARY_DIR}/featurehostConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/featurehostConfigVersion.cmake
  COMPONENT dev DESTINATION ${contract_cmake})

# From the .pc file to the prefix, so that an unpacked tree works wherever it is.
file(RELATIVE_PATH PKGCONFIG_TO_PREFIX
  /usr/${CMAKE_INSTALL_LIBDIR}/pkgconfig /usr)
string(REGEX REPLACE "/$" "" PKGCONFIG_TO_PREFIX "${PKGCONFIG_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/packaging/featurehost.pc.in featurehost.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/featurehost.pc COMPONENT dev
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# --- documents ----------------------------------------------------------------------------------

set(documents ${CMAKE_INSTALL_DATADIR}/doc)

# install_compressed(FILE NAME COMPONENT DESTINATION): NAME.gz, the same bytes on every build.
function(install_compressed file name component destination)
  set(compressed ${CMAKE_CURRENT_BINARY_DIR}/compressed/${component}/${name}.gz)
  add_custom_command(OUTPUT ${compressed} DEPENDS ${file} VERBATIM
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/compressed/${component}
    COMMAND gzip -9nc ${file} > ${compressed})
  add_custom_target(${component}_${name}.gz ALL DEPENDS ${compressed})
  install(FILES ${compressed} COMPONENT ${component} DESTINATION ${destination})
endfunction()

# install_package_documents(COMPONENT PACKAGE COPYRIGHT...): what every Debian package has.
function(install_package_documents component package)
  set(copyright ${CMAKE_CURRENT_BINARY_DIR}/copyright/${package})
  file(WRITE ${copyright} "")
  foreach(part ${ARGN})
    file(READ ${PROJECT_SOURCE_DIR}/cmake/packaging/${part} text)
    file(APPEND ${copyright} "${text}")
  endforeach()
  install(FILES ${copyright} RENAME copyright COMPONENT ${component}
    DESTINATION ${documents}/${package})
  install_compressed(${PROJECT_SOURCE_DIR}/CHANGELOG.md changelog ${component}
    ${documents}/${package})
endfunction()

install_package_documents(module maincpuloader copyright)
install_package_documents(dev featurehost-dev copyright)
if(BUILD_FEATUREHOST)
  install_package_documents(featurehost featurehost copyright copyright-libraries)
  install(FILES ${PROJECT_SOURCE_DIR}/docs/featurehost.md COMPONENT featurehost
    DESTINATION ${documents}/featurehost)
  if(EXISTS ${PROJECT_SOURCE_DIR}/docs/featurehost.1)
    install_compressed(${PROJECT_SOURCE_DIR}/docs/featurehost.1 featurehost.1 featurehost
      ${CMAKE_INSTALL_MANDIR}/man1)
  endif()
endif()

# In the same places to each other as in the sources: the documents' links go on working.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs COMPONENT dev
  DESTINATION ${documents}/featurehost-dev FILES_MATCHING PATTERN "*.md")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples COMPONENT dev
  DESTINATION ${documents}/featurehost-dev PATTERN ".clang-format" EXCLUDE)
