# The beep player: a steady-clock-timed signal into a sound server's sink, for the
# recordings through real servers (tests, microphone_bench) and checks by hand.
pkg_check_modules(PULSE_SIMPLE REQUIRED IMPORTED_TARGET libpulse-simple)
add_executable(beepplayer ${CMAKE_CURRENT_LIST_DIR}/beepplayer.cpp)
target_link_libraries(beepplayer PRIVATE PkgConfig::PULSE_SIMPLE)
