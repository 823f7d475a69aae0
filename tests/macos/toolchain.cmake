# SPDX-License-Identifier: MIT
#
# Builds for macOS 13 on Linux, for checks only: Zig's compiler and linker, with the declarations
# beside this file and the linker stubs made from them. The programs are not for use on a Mac.
#
# scripts/check-macos sets TARNVALE_ZIG, TARNVALE_STUBS and TARNVALE_ARCHITECTURE.

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR "${TARNVALE_ARCHITECTURE}")
set(CMAKE_OSX_DEPLOYMENT_TARGET 13.0)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES
    TARNVALE_ZIG TARNVALE_STUBS TARNVALE_ARCHITECTURE)

set(flags
    "-isystem ${CMAKE_CURRENT_LIST_DIR}/declarations"
    # Refuses what the standard library of macOS 13.0 lacks, as Apple's compiler would.
    "-include ${CMAKE_CURRENT_LIST_DIR}/Availability.h"
    # Zig's own additions are not what we check, nor its warnings about CMake's.
    "-fno-sanitize=undefined -Wno-unused-command-line-argument")
list(JOIN flags " " flags)
foreach(language CXX OBJCXX)
    set(CMAKE_${language}_COMPILER "${TARNVALE_ZIG}" c++)
    set(CMAKE_${language}_COMPILER_TARGET "${TARNVALE_ARCHITECTURE}-macos.13.0-none")
    set(CMAKE_${language}_COMPILER_WORKS ON)
    # To link what shows CMake the compiler, Zig would first compile its own standard library, in minutes.
    set(CMAKE_${language}_COMPILER_ID_FLAGS_ALWAYS -c)
    set(CMAKE_${language}_FLAGS_INIT "${flags}")
    set(CMAKE_${language}_ARCHIVE_CREATE "${TARNVALE_ZIG} ar qcs <TARGET> <OBJECTS>")
    set(CMAKE_${language}_ARCHIVE_FINISH "")
    set(CMAKE_${language}_LINKER_LAUNCHER "${CMAKE_CURRENT_LIST_DIR}/link-with-sections")
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-F ${TARNVALE_STUBS} -L ${TARNVALE_STUBS} -lobjc -nostdlib++ -lstandard")

# CMake asks for it, but nothing here uses it.
set(CMAKE_INSTALL_NAME_TOOL /bin/false)
