# package_note(TARGET PACKAGE): put the package's name and version into the file itself, as the ELF
# note that distributions use for it (readelf --notes FILE). It survives strip and is no symbol.
function(package_note target package)
  target_link_options(${target} PRIVATE -Xlinker
    "--package-metadata={\"type\":\"deb\",\"name\":\"${package}\",\"version\":\"${PROJECT_VERSION}\"}")
endfunction()
