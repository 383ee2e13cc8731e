# Cross build for Windows with mingw-w64, included by the x64 and x86 toolchain files once they
# have set CMAKE_SYSTEM_PROCESSOR. The posix thread flavour: GoogleTest needs std::mutex, which
# the win32 flavour lacks.
set(CMAKE_SYSTEM_NAME Windows)
set(KESTAL_MINGW_TRIPLE ${CMAKE_SYSTEM_PROCESSOR}-w64-mingw32)
set(CMAKE_C_COMPILER ${KESTAL_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KESTAL_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${KESTAL_MINGW_TRIPLE}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${KESTAL_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Packages are also looked up in the cross-built dependency prefix (CMAKE_PREFIX_PATH).
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
