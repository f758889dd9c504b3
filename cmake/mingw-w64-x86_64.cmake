# Cross build for 64-bit Windows with Debian's mingw-w64 (posix thread model,
# so std::thread and std::mutex are available). Test programs run through Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(QX_MINGW_PREFIX x86_64-w64-mingw32)

set(CMAKE_C_COMPILER   ${QX_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${QX_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER  ${QX_MINGW_PREFIX}-windres)
set(CMAKE_OBJDUMP      ${QX_MINGW_PREFIX}-objdump)
set(CMAKE_OBJCOPY      ${QX_MINGW_PREFIX}-objcopy)
set(CMAKE_STRIP        ${QX_MINGW_PREFIX}-strip)

set(CMAKE_FIND_ROOT_PATH /usr/${QX_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(QX_WINE wine REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${QX_WINE})
