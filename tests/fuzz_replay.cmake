# Every fuzz target also builds, with the ordinary compiler, as a test program
# that replays its committed corpus: the seeds and every input that once found
# a fault run in each build, the powerpc one included, and count for coverage.
file(GLOB _replay_srcs CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/fuzz/*.cpp)
foreach(src ${_replay_srcs})
  get_filename_component(name ${src} NAME_WE)
  add_executable(replay_${name} ${src} ${CMAKE_CURRENT_SOURCE_DIR}/support/fuzz_replay.cpp)
  target_link_libraries(replay_${name} PRIVATE ${DTKIT_FUZZ_LIBS})
  target_compile_options(replay_${name} PRIVATE ${DTKIT_WARNINGS})
  add_test(NAME fuzz_replay_${name}
    COMMAND replay_${name} ${PROJECT_SOURCE_DIR}/fuzz/corpus/${name})
  set_tests_properties(fuzz_replay_${name} PROPERTIES TIMEOUT 300)
endforeach()
