add_executable(bench_writer ${CMAKE_CURRENT_LIST_DIR}/writer_bench.cpp)
target_link_libraries(bench_writer PRIVATE recorder_media syntheticcamera)
