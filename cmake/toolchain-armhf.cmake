# Cross build for 32-bit ARM Linux (armhf) with Debian's cross compiler
# (crossbuild-essential-armhf), against the armhf Debian root that
# scripts/setup-armhf makes ($OLVANE_ARMHF_ROOT, default
# /var/lib/olvane/armhf-root). Programs run inside that root under qemu
# (scripts/armhf-run), so ctest runs the armhf tests as they are.
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(DEFINED ENV{OLVANE_ARMHF_ROOT})
    set(OLVANE_ARMHF_ROOT $ENV{OLVANE_ARMHF_ROOT})
else()
    set(OLVANE_ARMHF_ROOT /var/lib/olvane/armhf-root)
endif()
if(NOT EXISTS ${OLVANE_ARMHF_ROOT}/usr/include/arm-linux-gnueabihf)
    message(FATAL_ERROR "no armhf root at ${OLVANE_ARMHF_ROOT}: run scripts/setup-armhf")
endif()

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_SYSROOT ${OLVANE_ARMHF_ROOT})
# GCC notes that std::pair and iterator arguments are passed as GCC 7.1
# changed it on ARM; every library here is built by GCC 12, so that is moot.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
set(CMAKE_FIND_ROOT_PATH ${OLVANE_ARMHF_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the root's .pc files and prefixes their paths with it.
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${OLVANE_ARMHF_ROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${OLVANE_ARMHF_ROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${OLVANE_ARMHF_ROOT}/usr/share/pkgconfig)

# Qt's code generators (moc) are the machine's own.
set(QT_HOST_PATH /usr)
set(QT_HOST_PATH_CMAKE_DIR /usr/lib/x86_64-linux-gnu/cmake)

get_filename_component(_olvane_scripts ${CMAKE_CURRENT_LIST_DIR}/../scripts ABSOLUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR ${_olvane_scripts}/armhf-run)
