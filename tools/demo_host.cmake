# The demo host: records a clip through the plugin the way a camera application would.
add_executable(demo_host ${CMAKE_CURRENT_LIST_DIR}/demo_host.cpp)
target_link_libraries(demo_host PRIVATE syntheticcamera recorder_commandline Qt::Core OpenCV::core
  PkgConfig::FFMPEG ffmpegplugin)
if(TARGET OpenCV::videoio)
  target_link_libraries(demo_host PRIVATE OpenCV::videoio)
endif()
target_compile_definitions(demo_host PRIVATE DEMO_PLUGIN_PATH="$<TARGET_FILE:ffmpegplugin>")
