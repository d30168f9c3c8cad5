# IPC message decoder: envelopes, argument kinds, object references.
sv_add_fuzzer(ipc_message_fuzz ipc_message_fuzz.cc)
target_link_libraries(ipc_message_fuzz PRIVATE sv_ipc)
