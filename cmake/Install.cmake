# What `cmake --install` puts under the prefix, by component:
#
#   runtime  lib/libZarnMediaClient.so.<major> and .so.<version>
#   dev      include/ZarnMediaClient.h, the lib/libZarnMediaClient.so link,
#            lib/cmake/ZarnMediaSDK/ (find_package) and
#            lib/pkgconfig/zarn-media-client.pc
#   tool     bin/zarn-media and its man pages (tools/CMakeLists.txt)
#
# The static internals, the runtime and store-client headers stay in the build
# tree: a host sees the public header and the shared library only. The CMake
# package and the pkg-config file locate the prefix relative to themselves, so
# an unpacked .deb works from any directory just like an installed tree.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ZARN_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZarnMediaSDK)

install(TARGETS ZarnMediaClient EXPORT ZarnMediaSDKTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(FILES ${PROJECT_SOURCE_DIR}/include/ZarnMediaClient.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

install(EXPORT ZarnMediaSDKTargets NAMESPACE ZarnMediaSDK::
        DESTINATION ${ZARN_CMAKE_PACKAGE_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/ZarnMediaSDKConfig.cmake.in
                              ${CMAKE_CURRENT_BINARY_DIR}/ZarnMediaSDKConfig.cmake
                              INSTALL_DESTINATION ${ZARN_CMAKE_PACKAGE_DIR})
# The public header's records change only with a new major version, which is
# also the SONAME's number: any release of the same major will do.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ZarnMediaSDKConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ZarnMediaSDKConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/ZarnMediaSDKConfigVersion.cmake
        DESTINATION ${ZARN_CMAKE_PACKAGE_DIR} COMPONENT dev)

file(RELATIVE_PATH ZARN_PC_PREFIX_FROM_PCDIR /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" ZARN_PC_PREFIX_FROM_PCDIR "${ZARN_PC_PREFIX_FROM_PCDIR}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/zarn-media-client.pc.in
               ${CMAKE_CURRENT_BINARY_DIR}/zarn-media-client.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zarn-media-client.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
