# Cross build for 32-bit (x86) Windows with mingw-w64: the 32-bit provider DLL for WOW64 callers
# (32-bit signtool, Office).
set(CMAKE_SYSTEM_PROCESSOR i686)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64.cmake)
