# The picture conversion benchmark: the recording's converter against OpenCV and swscale.
add_executable(conversion_bench ${CMAKE_CURRENT_LIST_DIR}/conversion_bench.cpp)
target_link_libraries(conversion_bench PRIVATE recorder_media recorder_commandline)
