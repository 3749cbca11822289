# The dissector's tests run tshark with the Lua file from the source tree,
# over what the library's agent, dtcollect and dtconfigd send.
if(TARGET test_wireshark_test)
  target_link_libraries(test_wireshark_test PRIVATE dtkit_static collectcore)
  add_dependencies(test_wireshark_test dtcollect dtconfigd)
  string(REPLACE ";" " " _ws_emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
  target_compile_definitions(test_wireshark_test PRIVATE
    DTKIT_LUA="${PROJECT_SOURCE_DIR}/tools/wireshark/dtkit.lua"
    DTCOLLECT_COMMAND="${_ws_emulator} $<TARGET_FILE:dtcollect>"
    DTCONFIGD_COMMAND="${_ws_emulator} $<TARGET_FILE:dtconfigd>")
endif()
# Every manual page renders without a single groff warning.
if(TARGET dtkit_manpages)
  add_test(NAME manpages_render COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/manpages.sh ${DTKIT_MAN_OUTPUTS})
endif()
