# Every external library the project uses; installed by scripts/install-deps.sh.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
find_package(fmt REQUIRED)
find_package(spdlog REQUIRED)
find_package(GTest REQUIRED)
find_package(benchmark QUIET)

find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
add_library(sv_asio INTERFACE)
target_include_directories(sv_asio SYSTEM INTERFACE ${ASIO_INCLUDE_DIR})
target_compile_definitions(sv_asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
target_link_libraries(sv_asio INTERFACE Threads::Threads)

pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
pkg_check_modules(FFMPEG IMPORTED_TARGET libavformat libavcodec libavutil libswscale libswresample)
pkg_check_modules(LIBYUV IMPORTED_TARGET libyuv)
pkg_check_modules(PULSE IMPORTED_TARGET libpulse)
pkg_check_modules(PIPEWIRE IMPORTED_TARGET libpipewire-0.3)
pkg_check_modules(WAYLAND_CLIENT IMPORTED_TARGET wayland-client)
pkg_check_modules(XCB IMPORTED_TARGET xcb xcb-shm xcb-composite xcb-randr xcb-xfixes)
if(NOT LIBYUV_FOUND)
  find_path(LIBYUV_INCLUDE_DIR libyuv.h)
  find_library(LIBYUV_LIBRARY yuv)
  if(LIBYUV_INCLUDE_DIR AND LIBYUV_LIBRARY)
    add_library(PkgConfig::LIBYUV INTERFACE IMPORTED)
    target_include_directories(PkgConfig::LIBYUV INTERFACE ${LIBYUV_INCLUDE_DIR})
    target_link_libraries(PkgConfig::LIBYUV INTERFACE ${LIBYUV_LIBRARY})
    set(LIBYUV_FOUND TRUE)
  endif()
endif()
# The X11 window system of the foreground tracking (the core protocol, and
# X-Resource for the process behind a window).
pkg_check_modules(XCB_CORE REQUIRED IMPORTED_TARGET xcb xcb-res)

# Wayland protocol glue generated at build time: sv_wayland_protocol(TARGET XML)
# makes a static library TARGET of the protocol's client code whose users
# include "<xml name>-client-protocol.h".
find_program(WAYLAND_SCANNER wayland-scanner)
pkg_get_variable(WAYLAND_PROTOCOLS_DIR wayland-protocols pkgdatadir)
function(sv_wayland_protocol target xml)
  get_filename_component(base ${xml} NAME_WE)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/${target})
  add_custom_command(
    OUTPUT ${out}/${base}-client-protocol.h ${out}/${base}-protocol.c
    COMMAND ${CMAKE_COMMAND} -E make_directory ${out}
    COMMAND ${WAYLAND_SCANNER} client-header ${xml} ${out}/${base}-client-protocol.h
    COMMAND ${WAYLAND_SCANNER} private-code ${xml} ${out}/${base}-protocol.c
    DEPENDS ${xml}
    VERBATIM)
  add_library(${target} STATIC ${out}/${base}-protocol.c ${out}/${base}-client-protocol.h)
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_include_directories(${target} PUBLIC ${out})
  target_link_libraries(${target} PUBLIC PkgConfig::WAYLAND_CLIENT)
endfunction()
