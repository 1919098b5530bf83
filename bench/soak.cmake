# The soak: the long runs of the session tests, for as long as asked (not run in CI).
if(TARGET fakealsa AND TARGET recorder_testsupport)
  add_executable(soak_bench ${CMAKE_CURRENT_LIST_DIR}/soak_bench.cpp)
  target_include_directories(soak_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests/session)
  target_link_libraries(soak_bench PRIVATE recorder_testsupport simulatedmic recorder_commandline)
  target_compile_definitions(soak_bench PRIVATE RECORDER_PLUGIN_PATH="$<TARGET_FILE:ffmpegplugin>")
  add_dependencies(soak_bench ffmpegplugin)
endif()
