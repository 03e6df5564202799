# Cross build of the 32-bit Windows console program with the Debian
# mingw-w64 compilers (apt-get install mingw-w64):
#   cmake -S . -B build-windows-x86 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-x86.cmake
# or: cmake --preset windows-x86 && cmake --build --preset windows-x86
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86)
set(MDSNAP_MINGW_TRIPLE i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
