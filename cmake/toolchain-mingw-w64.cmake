# Cross-building the Windows component with Debian's mingw-w64 (x86_64).
# Usage: cmake -S . -B build-win-x86_64 --toolchain cmake/toolchain-x86_64-w64-mingw32.cmake
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(ELATECTWN4_MINGW_TRIPLE x86_64-w64-mingw32)

# The POSIX thread model: std::thread, std::mutex and thread_local as on Linux.
set(CMAKE_C_COMPILER ${ELATECTWN4_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ELATECTWN4_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${ELATECTWN4_MINGW_TRIPLE}-windres)
set(ELATECTWN4_WIDL ${ELATECTWN4_MINGW_TRIPLE}-widl)

set(CMAKE_FIND_ROOT_PATH /usr/${ELATECTWN4_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
