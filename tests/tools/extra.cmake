target_link_libraries(test_dtfcm_test PRIVATE dtfcm_decode)
# dtcollect: the tests drive its core in-process and run the program itself
# (under the emulator when cross-built).
target_link_libraries(test_dtcollect_test PRIVATE dtcollect_core)
add_dependencies(test_dtcollect_test dtcollect)
string(REPLACE ";" " " _dtcollect_emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
target_compile_definitions(test_dtcollect_test PRIVATE
  DTCOLLECT_COMMAND="${_dtcollect_emulator} $<TARGET_FILE:dtcollect>")
# dtconfigd: the tests drive its parsers in-process and run the program itself
# (under the emulator when cross-built).
target_link_libraries(test_dtconfigd_test PRIVATE dtconfigd_core)
add_dependencies(test_dtconfigd_test dtconfigd)
string(REPLACE ";" " " _dtconfigd_emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
target_compile_definitions(test_dtconfigd_test PRIVATE
  DTCONFIGD_COMMAND="${_dtconfigd_emulator} $<TARGET_FILE:dtconfigd>")
include(${CMAKE_CURRENT_LIST_DIR}/workbench.cmake)
