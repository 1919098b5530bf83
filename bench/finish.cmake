# What finishing a recording costs against its length: in place, and by today's copy.
add_executable(bench_finish ${CMAKE_CURRENT_LIST_DIR}/finish_bench.cpp)
target_link_libraries(bench_finish PRIVATE recorder_media recorder_commandline)
