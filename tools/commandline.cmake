# Option parsing shared by the demo host and the benchmarks.
add_library(recorder_commandline STATIC
  ${CMAKE_CURRENT_LIST_DIR}/commandline.h ${CMAKE_CURRENT_LIST_DIR}/commandline.cpp)
target_include_directories(recorder_commandline PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(recorder_commandline PUBLIC Qt::Core)
target_compile_definitions(recorder_commandline PRIVATE RECORDER_VERSION="${PROJECT_VERSION}")
set_target_properties(recorder_commandline PROPERTIES AUTOMOC OFF)
