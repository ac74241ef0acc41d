# Debian packages from the install rules (cmake/Install.cmake, tools/), one per
# component, made with `cpack -G DEB` in the build tree:
#
#   libzarnmediaclient<major>   runtime: the shared library
#   libzarnmediaclient-dev      dev: header, .so link, CMake package, pkg-config file
#   zarn-media                  tool: the command-line tool and its man pages
#
# Dependencies on other packages come from the binaries (dpkg-shlibdeps, from
# dpkg-dev); the runtime package carries a shlibs file, and the dev and tool
# packages depend on the runtime package of exactly this version.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zarn-media-sdk)
set(CPACK_PACKAGE_VENDOR "Velto")
set(CPACK_PACKAGE_CONTACT "Zarn-MediaSDK maintainers <zarn-media@velto.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Zarn-MediaSDK media storage client")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# The tool links the library of this build, found here (no package owns it yet).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/Src)

set(ZARN_RUNTIME_PACKAGE libzarnmediaclient${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${ZARN_RUNTIME_PACKAGE})
# Only the runtime package holds a shared object, so only it gets a shlibs
# file: any later release of the same SONAME satisfies what links against it.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "Zarn-MediaSDK media storage client library\n Records video streams frame by frame into a store (a local directory or CephFS),\n plays time ranges back, locks and recycles recordings.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzarnmediaclient-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "Zarn-MediaSDK media storage client library: development files\n The public header, the CMake package (find_package(ZarnMediaSDK)) and the\n pkg-config file (zarn-media-client).")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME zarn-media)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION video)
set(CPACK_COMPONENT_TOOL_DEPENDS runtime)
set(CPACK_COMPONENT_TOOL_DESCRIPTION
    "Zarn-MediaSDK command-line tool\n zarn-media records H.264/H.265 video into a Zarn store, lists, locks, deletes\n and exports it, prints the library's statistics and draws recording timelines.")

set(CPACK_COMPONENTS_ALL runtime dev)
if(ZARN_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tool)
endif()
include(CPack)
