# The recovery tool: finishes fragmented MP4s left by a crash as standard ones.
include(GNUInstallDirs)
add_executable(finish_recording ${CMAKE_CURRENT_LIST_DIR}/finish_recording.cpp)
target_link_libraries(finish_recording PRIVATE recorder_media)
install(TARGETS finish_recording RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
