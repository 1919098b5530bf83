# The plugin's CPU and memory against the ffmpeg command line in interleaved pairs; it
# loads the built plugin with the simulated microphone, so it exists with the tests only.
if(TARGET fakealsa AND TARGET recorder_testsupport)
  add_executable(speed_bench ${CMAKE_CURRENT_LIST_DIR}/speed_bench.cpp)
  target_include_directories(speed_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests/session)
  target_link_libraries(speed_bench PRIVATE recorder_testsupport simulatedmic recorder_commandline)
  target_compile_definitions(speed_bench PRIVATE RECORDER_PLUGIN_PATH="$<TARGET_FILE:ffmpegplugin>")
  add_dependencies(speed_bench ffmpegplugin)
endif()
