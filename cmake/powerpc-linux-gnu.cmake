# Cross build for the device: 32-bit big-endian PowerPC, Debian's
# powerpc-linux-gnu cross compiler. The sysroot with OpenSSL and usrsctp comes
# from scripts/cross/sysroot.sh; binaries run on this machine under qemu-ppc.
#
#   cmake -S . -B build-ppc -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/powerpc-linux-gnu.cmake
#
# FERRULE_CROSS_SYSROOT  the sysroot (default: the one sysroot.sh last made current)
# FERRULE_CROSS_STATIC   link executables fully statically (default ON): one file
#                        to copy onto the board, and qemu runs it without a loader.
# FERRULE_CROSS_SMALL    build for size: -Os and link-time optimisation (default ON)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR powerpc)

set(FERRULE_CROSS_TRIPLET powerpc-linux-gnu)
set(CMAKE_C_COMPILER ${FERRULE_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${FERRULE_CROSS_TRIPLET}-g++)

# The toolchain file is read again for every try_compile, where only the
# variables listed here survive; the environment is the fallback.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES FERRULE_CROSS_SYSROOT FERRULE_CROSS_STATIC FERRULE_CROSS_SMALL)
if(NOT FERRULE_CROSS_SYSROOT)
  if(DEFINED ENV{FERRULE_CROSS_SYSROOT})
    set(FERRULE_CROSS_SYSROOT "$ENV{FERRULE_CROSS_SYSROOT}")
  elseif(EXISTS /var/cache/ferrule-cross/current)
    set(FERRULE_CROSS_SYSROOT /var/cache/ferrule-cross/current)
  elseif(EXISTS "$ENV{HOME}/.cache/ferrule-cross/current")
    set(FERRULE_CROSS_SYSROOT "$ENV{HOME}/.cache/ferrule-cross/current")
  endif()
endif()
if(NOT FERRULE_CROSS_SYSROOT OR NOT IS_DIRECTORY "${FERRULE_CROSS_SYSROOT}")
  message(FATAL_ERROR "No PowerPC sysroot found: run scripts/cross/sysroot.sh first")
endif()
set(FERRULE_CROSS_SYSROOT "${FERRULE_CROSS_SYSROOT}" CACHE PATH "PowerPC sysroot with OpenSSL and usrsctp")
if(NOT DEFINED FERRULE_CROSS_STATIC)
  set(FERRULE_CROSS_STATIC ON)
endif()
set(FERRULE_CROSS_STATIC ${FERRULE_CROSS_STATIC} CACHE BOOL "Link executables fully statically")

# 32-bit PowerPC has no 64-bit atomic instructions; GCC turns such atomics
# (OpenSSL's counters, std::atomic<int64_t>) into calls to libatomic.
set(CMAKE_C_STANDARD_LIBRARIES_INIT -latomic)
set(CMAKE_CXX_STANDARD_LIBRARIES_INIT -latomic)

# Libraries, headers and package files only from the sysroot (and the cross
# compiler's own directory); programs from the host.
set(CMAKE_FIND_ROOT_PATH "${FERRULE_CROSS_SYSROOT}" /usr/${FERRULE_CROSS_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} "${FERRULE_CROSS_SYSROOT}/lib/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(OPENSSL_ROOT_DIR "${FERRULE_CROSS_SYSROOT}")

# Header-only Boost is the host's: the sysroot holds a link to /usr/include/boost
# alone, so no other host header can shadow the target's C library. Its CMake
# package files describe the host and are not used.
set(Boost_INCLUDE_DIR "${FERRULE_CROSS_SYSROOT}/include" CACHE PATH "Boost headers (the host's, via the sysroot)" FORCE)
set(Boost_NO_BOOST_CMAKE ON)
set(Boost_NO_SYSTEM_PATHS ON)

# The board's flash is small: the linker drops every function and object
# nothing refers to (a fifth of a static daemon).
set(CMAKE_C_FLAGS_INIT "-ffunction-sections -fdata-sections")
set(CMAKE_CXX_FLAGS_INIT "-ffunction-sections -fdata-sections")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--gc-sections")

if(NOT DEFINED FERRULE_CROSS_SMALL)
  set(FERRULE_CROSS_SMALL ON)
endif()
set(FERRULE_CROSS_SMALL ${FERRULE_CROSS_SMALL} CACHE BOOL "Build for size: -Os and link-time optimisation")
if(FERRULE_CROSS_STATIC)
  set(OPENSSL_USE_STATIC_LIBS TRUE)
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -static")
endif()
# The platform files set the optimisation flags and reset the library
# suffixes after this file is read: the project hook applies the device's
# choices at the end of every project().
set(CMAKE_PROJECT_INCLUDE "${CMAKE_CURRENT_LIST_DIR}/powerpc-linux-gnu-project.cmake")

# Test discovery and ctest run the target's programs through the emulator.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-ppc -L /usr/${FERRULE_CROSS_TRIPLET})
