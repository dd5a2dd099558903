# 32-bit ARM with hardware floating point, cross-built on another Debian machine and run by qemu-user.
#
# The compiler and its C library are the machine's own packages; the libraries of the target lie in a folder that
# "tools/armhf.sh sysroot" fills, so that nothing of a foreign architecture is installed.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

get_filename_component(KEYWARD_DEFAULT_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../../build/armhf-sysroot" ABSOLUTE)
set(KEYWARD_SYSROOT "${KEYWARD_DEFAULT_SYSROOT}" CACHE PATH "Folder with the target's libraries and headers")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KEYWARD_SYSROOT)
if(NOT EXISTS "${KEYWARD_SYSROOT}/usr/include")
  message(FATAL_ERROR "There is no sysroot in ${KEYWARD_SYSROOT}: run tools/armhf.sh sysroot")
endif()

set(CMAKE_FIND_ROOT_PATH "${KEYWARD_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Headers that differ from one architecture to the next lie in a folder of their own.
# Notes about how compilers before GCC 7 passed parameters would concern only mixed builds.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi -isystem ${KEYWARD_SYSROOT}/usr/include/arm-linux-gnueabihf")
# What the libraries of the sysroot need themselves.
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-Wl,-rpath-link,${KEYWARD_SYSROOT}/usr/lib/arm-linux-gnueabihf")
endforeach()

# The target's program loader is what the emulator runs, and is told where the libraries are. The emulator's own way,
# its option -L, would put the sysroot in place of "/" itself for every program that opens it, and the machine's files
# would be gone from below.
set(KEYWARD_LIBRARY_FOLDERS "${KEYWARD_SYSROOT}/lib/arm-linux-gnueabihf:${KEYWARD_SYSROOT}/usr/lib/arm-linux-gnueabihf")
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm;${KEYWARD_SYSROOT}/lib/arm-linux-gnueabihf/ld-linux-armhf.so.3"
  "--library-path;${KEYWARD_LIBRARY_FOLDERS}")
