# Shared by the mingw-w64 toolchain files: the compiler of the triple (the
# posix thread model when installed, so std::thread works; linked
# statically, it needs no DLL of its own), and the target's own root for
# headers and libraries.
find_program(MDSNAP_MINGW_CXX NAMES ${MDSNAP_MINGW_TRIPLE}-g++-posix ${MDSNAP_MINGW_TRIPLE}-g++)
if(NOT MDSNAP_MINGW_CXX)
  message(FATAL_ERROR "${MDSNAP_MINGW_TRIPLE}-g++ not found: apt-get install mingw-w64")
endif()
set(CMAKE_CXX_COMPILER ${MDSNAP_MINGW_CXX})
set(CMAKE_FIND_ROOT_PATH /usr/${MDSNAP_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
