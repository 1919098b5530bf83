# The synthetic camera: a host-side frame source built on the public headers only.
add_library(syntheticcamera STATIC
  ${CMAKE_CURRENT_LIST_DIR}/syntheticcamera.h ${CMAKE_CURRENT_LIST_DIR}/syntheticcamera.cpp)
target_include_directories(syntheticcamera PUBLIC ${CMAKE_CURRENT_LIST_DIR} ${PROJECT_SOURCE_DIR}/plugin)
target_link_libraries(syntheticcamera PUBLIC OpenCV::core OpenCV::imgproc)
set_target_properties(syntheticcamera PROPERTIES AUTOMOC OFF)
