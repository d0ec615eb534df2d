# Toolchain of the board: 32-bit ARM Linux, Debian's cross compiler, its programs run by qemu on this machine.
# The compiler brings its own libc; libcrypto and libsafec come from CMSVERIFY_ARM_SYSROOT.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMSVERIFY_ARM_SYSROOT "${CMAKE_BINARY_DIR}/sysroot" CACHE PATH "What cmake/arm-sysroot.sh has unpacked")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CMSVERIFY_ARM_SYSROOT)
if(NOT EXISTS "${CMSVERIFY_ARM_SYSROOT}/usr/include/openssl")
    message(FATAL_ERROR "There are no ARM libraries yet; fetch them with:\n"
                        "  cmake/arm-sysroot.sh '${CMSVERIFY_ARM_SYSROOT}'")
endif()

set(TRIPLET arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TRIPLET}-g++)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # no notes on what GCC 7.1 changed

# <openssl/configuration.h> lies in the folder of its architecture.
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES "${CMSVERIFY_ARM_SYSROOT}/usr/include/${TRIPLET}")

set(CMAKE_FIND_ROOT_PATH "${CMSVERIFY_ARM_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMSVERIFY_ARM_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${CMSVERIFY_ARM_SYSROOT}/usr/lib/${TRIPLET}/pkgconfig")

set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-arm-static -L /usr/${TRIPLET}
    -E "LD_LIBRARY_PATH=${CMSVERIFY_ARM_SYSROOT}/usr/lib/${TRIPLET}:/usr/${TRIPLET}/lib")
