# Cross-building the Windows component with Debian's mingw-w64, for the
# target named by its triplet: i686-w64-mingw32 (32-bit) or x86_64-w64-mingw32.
# Usage: cmake -S . -B build-win-i686 --toolchain cmake/toolchain-mingw-w64.cmake \
#          -DELATECTWN4_MINGW_TRIPLE=i686-w64-mingw32
if(NOT ELATECTWN4_MINGW_TRIPLE MATCHES "^(i686|x86_64)-w64-mingw32$")
  message(FATAL_ERROR "Set ELATECTWN4_MINGW_TRIPLE to i686-w64-mingw32 or x86_64-w64-mingw32")
endif()
# The compiler checks configure projects of their own: they get the triplet too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ELATECTWN4_MINGW_TRIPLE)

set(CMAKE_SYSTEM_NAME Windows)
string(REGEX REPLACE "-.*" "" CMAKE_SYSTEM_PROCESSOR ${ELATECTWN4_MINGW_TRIPLE})

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
