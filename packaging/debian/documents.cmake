# Run by cpack between installation and packing: each package's folder of documents, what lintian is
# told of it, and the manual pages packed as Debian has them.
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(usr ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr)
  set(documents ${usr}/share/doc/${package})
  configure_file(${CPACK_SYSCONFIG_SOURCE}/LICENSE ${documents}/copyright COPYONLY)
  configure_file(${CPACK_SYSCONFIG_SOURCE}/CHANGELOG.md ${documents}/changelog COPYONLY)
  string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
  file(WRITE ${documents}/changelog.Debian
    "sysconfig (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=low\n\n"
    "  * Packed by cpack. What changed is in changelog.gz.\n\n"
    " -- ${CPACK_DEBIAN_PACKAGE_MAINTAINER}  ${date}\n")
  if(component STREQUAL dev)
    foreach(file LAYOUT.md OVERLAYS.md layout.json)
      configure_file(${CPACK_SYSCONFIG_SOURCE}/docs/${file} ${documents}/${file} COPYONLY)
    endforeach()
  endif()
  set(overrides ${CPACK_SYSCONFIG_SOURCE}/packaging/debian/${package}.overrides)
  if(EXISTS ${overrides})
    configure_file(${overrides} ${usr}/share/lintian/overrides/${package} COPYONLY)
  endif()
  file(GLOB_RECURSE pages ${usr}/share/man/*)
  execute_process(COMMAND gzip -9 -n ${pages} ${documents}/changelog ${documents}/changelog.Debian
                  COMMAND_ERROR_IS_FATAL ANY)
endforeach()
