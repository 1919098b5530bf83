# Debian ships OpenCV's CMake package only with the full libopencv-dev (every module).
# The project needs core and imgproc (and videoio for the demo host), so it finds
# those pieces directly: OpenCV::core, OpenCV::imgproc, OpenCV::videoio.
find_path(OPENCV_PARTS_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4 REQUIRED)
foreach(part core imgproc videoio)
  find_library(OPENCV_PARTS_${part}_LIBRARY opencv_${part})
  if(OPENCV_PARTS_${part}_LIBRARY AND NOT TARGET OpenCV::${part})
    add_library(OpenCV::${part} UNKNOWN IMPORTED)
    set_target_properties(OpenCV::${part} PROPERTIES
      IMPORTED_LOCATION ${OPENCV_PARTS_${part}_LIBRARY}
      INTERFACE_INCLUDE_DIRECTORIES ${OPENCV_PARTS_INCLUDE_DIR})
  endif()
endforeach()
foreach(part core imgproc)
  if(NOT TARGET OpenCV::${part})
    message(FATAL_ERROR "OpenCV ${part} not found: run scripts/install-deps.sh")
  endif()
endforeach()
