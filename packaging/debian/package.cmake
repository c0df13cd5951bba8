# Debian packages, made by cpack in a build folder: libsysconfig1, libsysconfig-dev, sysconfig-tools and, for
# the machine of whoever looks at a router, sysconfig-page.
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library dev tools)
if(NOT CMAKE_CROSSCOMPILING)
  list(APPEND CPACK_COMPONENTS_ALL page)
endif()
set(CPACK_PACKAGE_NAME sysconfig)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
if(SYSCONFIG_DEBIAN)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${SYSCONFIG_DEBIAN})
endif()
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The sysconfig authors <sysconfig@localhost>")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# tar, gzip and the shell, which the library runs, are there on every Debian.
set(version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(libc "libc6 (>= 2.34)")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libsysconfig1)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "${libc}")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/shlibs ${CMAKE_CURRENT_LIST_DIR}/triggers)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "live configuration of a router in shared memory
Seventeen areas of configuration in System V shared memory, changed record
by record under file locks, announced to the configuration daemon and saved
to flash archives.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libsysconfig-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libsysconfig1 (= ${version}), libc6-dev, python3:any, python3-pyelftools")
set(CPACK_DEBIAN_DEV_DESCRIPTION "live configuration of a router in shared memory (development)
Headers, the static library, files for pkg-config and CMake, a manual page for
each function, and the program that makes overlays from debug information.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME sysconfig-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libsysconfig1 (= ${version}), ${libc}")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "see, edit and guard the live configuration of a router
scctl shows and edits the areas of libsysconfig, moves them between machines,
compares them with what is saved, looks for damage and shows who holds a
lock. scguard keeps a last good copy of each flash archive.")

set(CPACK_DEBIAN_PAGE_PACKAGE_NAME sysconfig-page)
set(CPACK_DEBIAN_PAGE_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PAGE_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PAGE_PACKAGE_DEPENDS "python3 (>= 3.9)")
set(CPACK_DEBIAN_PAGE_PACKAGE_RECOMMENDS "sysconfig-tools")
set(CPACK_DEBIAN_PAGE_PACKAGE_SUGGESTS "openssh-client")
set(CPACK_DEBIAN_PAGE_DESCRIPTION "live configuration of a router in a browser
scpage serves a page on 127.0.0.1 that shows the areas of libsysconfig, their
tables, records and bytes, and each change with the program that made it: of
this machine, of another one by ssh, or of archives.")

# What Debian wants beside the installed files is added when these are in place.
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/documents.cmake)
set(CPACK_SYSCONFIG_SOURCE ${PROJECT_SOURCE_DIR})
include(CPack)
