# Client library: what applications and the operating system's side link to
# talk to the daemon.
add_library(sv_client ${CMAKE_CURRENT_SOURCE_DIR}/shell_client.cc)
target_include_directories(sv_client PUBLIC ${CMAKE_SOURCE_DIR})
target_link_libraries(sv_client PUBLIC sv_protocol sv_ipc sv_core PRIVATE sv_build_flags)
