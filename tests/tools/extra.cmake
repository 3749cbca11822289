# The collector core: its tests play devices on loopback addresses.
target_link_libraries(test_collectcore_test PRIVATE collectcore)
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
target_compile_definitions(test_dtconfigd_test PRIVATE DTKIT_VERSION="${PROJECT_VERSION}"
  DTCONFIGD_COMMAND="${_dtconfigd_emulator} $<TARGET_FILE:dtconfigd>")
# dtsim: the tests know the simulated host's values from its core, play the
# collector themselves and run dtcollect against the fleet.
target_link_libraries(test_dtsim_test PRIVATE dtsim_core dtcollect_core)
add_dependencies(test_dtsim_test dtsim dtcollect)
target_compile_definitions(test_dtsim_test PRIVATE DTKIT_VERSION="${PROJECT_VERSION}"
  DTSIM_COMMAND="${_dtcollect_emulator} $<TARGET_FILE:dtsim>"
  DTCOLLECT_COMMAND="${_dtcollect_emulator} $<TARGET_FILE:dtcollect>")
# dtkit_exporter: the probe and the exposition writer in-process, everywhere;
# the program itself (and the real Prometheus) where the HTTP library is found.
target_link_libraries(test_dtkit_exporter_test PRIVATE dtkit_exporter_core)
if(TARGET dtkit_exporter)
  add_dependencies(test_dtkit_exporter_test dtkit_exporter)
  target_link_libraries(test_dtkit_exporter_test PRIVATE PkgConfig::DTKIT_HTTPLIB)
  target_compile_definitions(test_dtkit_exporter_test PRIVATE DTKIT_EXPORTER_COMMAND="$<TARGET_FILE:dtkit_exporter>")
endif()
include(${CMAKE_CURRENT_LIST_DIR}/workbench.cmake)
# Every test program of this folder, for a build of the tools' tests alone
# (the ThreadSanitizer leg builds this target and runs ctest -L tools).
add_custom_target(dtkit_tools_tests)
foreach(src ${tsrcs})
  get_filename_component(name ${src} NAME_WE)
  add_dependencies(dtkit_tools_tests test_${name})
endforeach()
