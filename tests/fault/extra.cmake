# The crash tests read the fault file back with dtfcm, in-process and as the
# program itself (under the emulator when cross-built).
target_link_libraries(test_DTFault_test PRIVATE dtfcm_decode)
add_dependencies(test_DTFault_test dtfcm)
string(REPLACE ";" " " _dtfcm_emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
target_compile_definitions(test_DTFault_test PRIVATE
  DTFCM_COMMAND="${_dtfcm_emulator} $<TARGET_FILE:dtfcm>")
