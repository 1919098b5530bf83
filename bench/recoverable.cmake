# The cost of recoverable files and of the rewrite into a standard MP4.
add_executable(bench_recoverable ${CMAKE_CURRENT_LIST_DIR}/recoverable_bench.cpp)
target_link_libraries(bench_recoverable PRIVATE recorder_media syntheticcamera recorder_commandline)
