# Cross build of the 64-bit Windows console program with the Debian
# mingw-w64 compilers (apt-get install mingw-w64):
#   cmake -S . -B build-windows-x64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-x64.cmake
# or: cmake --preset windows-x64 && cmake --build --preset windows-x64
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(MDSNAP_MINGW_TRIPLE x86_64-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
