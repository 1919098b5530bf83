# The microphone benchmark: the same recording through a real PulseAudio the benchmark
# starts, and straight from the simulated device; it needs the test helpers and player.
if(TARGET fakealsa AND TARGET recorder_testsupport)
  add_executable(microphone_bench ${CMAKE_CURRENT_LIST_DIR}/microphone_bench.cpp)
  target_include_directories(microphone_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests/session)
  target_link_libraries(microphone_bench PRIVATE recorder_testsupport simulatedmic)
  target_compile_definitions(microphone_bench PRIVATE RECORDER_PLUGIN_PATH="$<TARGET_FILE:ffmpegplugin>"
    BEEPPLAYER_PATH="$<TARGET_FILE:beepplayer>")
  add_dependencies(microphone_bench ffmpegplugin beepplayer)
endif()
