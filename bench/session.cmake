# The session benchmark loads the built plugin with the simulated microphone in front of
# libasound; it needs the test helpers, so it exists only when the tests are built.
if(TARGET fakealsa AND TARGET recorder_testsupport)
  add_executable(session_bench ${CMAKE_CURRENT_LIST_DIR}/session_bench.cpp)
  target_include_directories(session_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests/session)
  target_link_libraries(session_bench PRIVATE recorder_testsupport syntheticcamera simulatedmic
    recorder_commandline)
  target_compile_definitions(session_bench PRIVATE RECORDER_PLUGIN_PATH="$<TARGET_FILE:ffmpegplugin>")
  add_dependencies(session_bench ffmpegplugin)
endif()
