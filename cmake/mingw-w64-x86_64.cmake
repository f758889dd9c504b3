# Cross build for 64-bit Windows with Debian's clang and lld (x86_64-w64-mingw32
# target), against Debian's mingw-w64 headers and import libraries and the C++
# runtime of Debian's mingw-w64 gcc (libstdc++ with the posix thread model, so
# std::thread and std::mutex are available; linked statically). Test programs
# run through Wine.
#
# Why clang and lld: lld writes a full PDB (procedures, file-local ones too,
# inline sites, source lines, types) from clang's CodeView, for Windows
# debuggers; the objects also carry DWARF, which goes to debug/NAME.debug for
# gdb and winedbg (cmake/Release.cmake).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(QX_MINGW_PREFIX x86_64-w64-mingw32)
set(QX_MINGW_SYSROOT /usr/${QX_MINGW_PREFIX})

# gcc's mingw runtime, posix threads: the newest version installed
# (12-posix on Debian 12, 14-posix on Debian 13).
file(GLOB _qx_gcc_dirs LIST_DIRECTORIES true /usr/lib/gcc/${QX_MINGW_PREFIX}/*-posix)
list(SORT _qx_gcc_dirs COMPARE NATURAL ORDER DESCENDING)
list(GET _qx_gcc_dirs 0 QX_MINGW_GCC_DIR)
if(NOT QX_MINGW_GCC_DIR OR NOT EXISTS ${QX_MINGW_GCC_DIR}/libstdc++.a)
  message(FATAL_ERROR "no /usr/lib/gcc/${QX_MINGW_PREFIX}/*-posix/libstdc++.a: "
                      "run scripts/install-deps.sh (g++-mingw-w64-x86-64-posix)")
endif()

find_program(QX_CLANG NAMES clang REQUIRED)
find_program(QX_CLANGXX NAMES clang++ REQUIRED)
set(CMAKE_C_COMPILER   ${QX_CLANG})
set(CMAKE_CXX_COMPILER ${QX_CLANGXX})
set(CMAKE_C_COMPILER_TARGET   ${QX_MINGW_PREFIX})
set(CMAKE_CXX_COMPILER_TARGET ${QX_MINGW_PREFIX})
# GNU binutils for the rest: ar in its deterministic mode (Debian's default),
# windres for the version resources, objcopy for the split debug files.
set(CMAKE_AR           ${QX_MINGW_PREFIX}-ar)
set(CMAKE_RANLIB       ${QX_MINGW_PREFIX}-ranlib)
set(CMAKE_RC_COMPILER  ${QX_MINGW_PREFIX}-windres)
set(CMAKE_OBJDUMP      ${QX_MINGW_PREFIX}-objdump)
set(CMAKE_OBJCOPY      ${QX_MINGW_PREFIX}-objcopy)
set(CMAKE_STRIP        ${QX_MINGW_PREFIX}-strip)

# Headers: libstdc++'s first (clang finds no gcc of this target by itself),
# then mingw-w64's; never the build machine's /usr/include.
set(_qx_cxx_inc ${QX_MINGW_GCC_DIR}/include/c++)
string(JOIN " " CMAKE_C_FLAGS_INIT --sysroot=${QX_MINGW_SYSROOT})
string(JOIN " " CMAKE_CXX_FLAGS_INIT --sysroot=${QX_MINGW_SYSROOT} -nostdinc++
       -isystem ${_qx_cxx_inc} -isystem ${_qx_cxx_inc}/${QX_MINGW_PREFIX}
       -isystem ${_qx_cxx_inc}/backward)
# lld, the gcc runtime's folder (libstdc++, libgcc, libgcc_eh), and
# winpthreads, which libstdc++ needs (gcc's driver adds it by itself; lld
# resolves archives in any order).
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT
      "-fuse-ld=lld -L${QX_MINGW_GCC_DIR} -lpthread -Wno-unused-command-line-argument")
endforeach()

set(CMAKE_FIND_ROOT_PATH ${QX_MINGW_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(QX_WINE wine REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${QX_WINE})
