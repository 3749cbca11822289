# Host overrides of the platform layer, with the static and the shared library.
set(_pdir ${CMAKE_CURRENT_SOURCE_DIR}/platform)
foreach(kind static shared)
  add_executable(override_host_${kind} ${_pdir}/override_host.c)
  target_compile_options(override_host_${kind} PRIVATE -Wall -Wextra -Werror -std=c99)
  if(kind STREQUAL static)
    target_link_libraries(override_host_${kind} PRIVATE dtkit_static)
  else()
    target_link_libraries(override_host_${kind} PRIVATE dtkit)
  endif()
  add_test(NAME platform_override_${kind} COMMAND override_host_${kind})
  set_tests_properties(platform_override_${kind} PROPERTIES ENVIRONMENT "${DTKIT_TEST_ENV}")
endforeach()

# A host with the library's defaults, run by a script that checks its output.
add_executable(default_host ${_pdir}/default_host.c)
target_compile_options(default_host PRIVATE -Wall -Wextra -Werror -std=c99)
target_link_libraries(default_host PRIVATE dtkit_static)
add_test(NAME platform_default_layer
  COMMAND sh ${_pdir}/default_host.sh ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:default_host>)
set_tests_properties(platform_default_layer PROPERTIES ENVIRONMENT "${DTKIT_TEST_ENV}")

add_test(NAME platform_no_allocation
  COMMAND sh ${_pdir}/check_no_alloc.sh ${CMAKE_NM} $<TARGET_OBJECTS:dtkit_obj>
  COMMAND_EXPAND_LISTS)

# A host that has only the installed tree finds and links the library; for
# the board, with the installed toolchain file and the prefix alone, and run
# under the emulator.
if(CMAKE_CROSSCOMPILING AND CMAKE_CROSSCOMPILING_EMULATOR)
  add_test(NAME platform_install_consumer_cross
    COMMAND sh ${_pdir}/consumer/run.sh cross ${CMAKE_BINARY_DIR} ${_pdir}/consumer ${CMAKE_COMMAND}
      ${CMAKE_C_COMPILER} ${CMAKE_CROSSCOMPILING_EMULATOR})
  set_tests_properties(platform_install_consumer_cross PROPERTIES TIMEOUT 300)
elseif(NOT CMAKE_CROSSCOMPILING AND NOT DTKIT_SANITIZE)
  add_test(NAME platform_install_consumer
    COMMAND sh ${_pdir}/consumer/run.sh native ${CMAKE_BINARY_DIR} ${_pdir}/consumer ${CMAKE_COMMAND})
endif()
