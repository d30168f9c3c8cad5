# Internal client code shared by the `sorvel` tool and the tests: the shell
# channel's client and the consent agent.
add_library(sv_client ${CMAKE_CURRENT_SOURCE_DIR}/shell_client.cc
  ${CMAKE_CURRENT_SOURCE_DIR}/consent_agent.cc)
target_include_directories(sv_client PUBLIC ${CMAKE_SOURCE_DIR})
target_link_libraries(sv_client PUBLIC sv_protocol sv_ipc sv_core PRIVATE sv_build_flags)

# The installable client library for applications, libsorvel-client.so. It
# carries its own copy of the internal libraries and exports only the public
# API of include/sorvel/ (sorvel-client.map), so programs that link internal
# libraries as well (the `sorvel` tool, the tests) cannot mix the two.
add_library(sorvel_client SHARED
  ${CMAKE_CURRENT_SOURCE_DIR}/recorder_client.cc
  ${CMAKE_CURRENT_SOURCE_DIR}/recorder_error.cc)
set_target_properties(sorvel_client PROPERTIES
  OUTPUT_NAME sorvel-client
  EXPORT_NAME Client
  VERSION ${PROJECT_VERSION}
  SOVERSION 0
  LINK_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/sorvel-client.map)
target_include_directories(sorvel_client
  PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
         $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
  PRIVATE ${CMAKE_SOURCE_DIR})
target_compile_features(sorvel_client PUBLIC cxx_std_20)
target_link_libraries(sorvel_client PRIVATE sv_protocol sv_ipc sv_support sv_process sv_platform_system
  sv_core sv_build_flags)
target_link_options(sorvel_client PRIVATE
  -Wl,--version-script=${CMAKE_CURRENT_SOURCE_DIR}/sorvel-client.map)
if(NOT SV_SANITIZE)
  # Sanitizer runtimes come with the executable, not the library.
  target_link_options(sorvel_client PRIVATE -Wl,--no-undefined)
endif()
add_library(Sorvel::Client ALIAS sorvel_client)

# Installation (component "client"): the library, its headers, a pkg-config
# file and a CMake package; all relocatable, so `cmake --install --prefix`
# anywhere works.
set(SV_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Sorvel)
install(TARGETS sorvel_client EXPORT SorvelTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT client
  NAMELINK_COMPONENT client)
install(DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/include/sorvel
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT client)
install(EXPORT SorvelTargets NAMESPACE Sorvel:: DESTINATION ${SV_CMAKE_PACKAGE_DIR}
  COMPONENT client)
include(CMakePackageConfigHelpers)
configure_package_config_file(${CMAKE_CURRENT_SOURCE_DIR}/cmake/SorvelConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/SorvelConfig.cmake INSTALL_DESTINATION ${SV_CMAKE_PACKAGE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/SorvelConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/SorvelConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/SorvelConfigVersion.cmake
  DESTINATION ${SV_CMAKE_PACKAGE_DIR} COMPONENT client)
file(RELATIVE_PATH SV_PC_PREFIX_FROM_PCDIR "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(${CMAKE_CURRENT_SOURCE_DIR}/cmake/sorvel-client.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/sorvel-client.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/sorvel-client.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT client)
