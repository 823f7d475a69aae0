# SPDX-License-Identifier: MIT
#
# How this project compiles, and the functions with which its folders say what they hold:
#
#   tarnvale_library(NAME SOURCES a.cpp … [DEPENDS lib …])
#   tarnvale_program(NAME SOURCES a.cpp … [DEPENDS lib …])      lands in bin/
#   tarnvale_test(NAME [SOURCES aTest.cpp …] [CONTAINED_SOURCES bTest.cpp …]
#       [PORTABLE_SOURCES cTest.cpp …]
#       [DEPENDS lib …] [LABELS l …] [TIMEOUT seconds] [FIRST Suite.Test …] [THREADS])
#   tarnvale_fuzzer(NAME SOURCES a.cpp … [DEPENDS lib …])       only with TARNVALE_FUZZ

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_OBJCXX_STANDARD 20)
set(CMAKE_OBJCXX_STANDARD_REQUIRED ON)
set(CMAKE_OBJCXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_LINK_DEPENDS_NO_SHARED ON)
set(CMAKE_COMPILE_WARNING_AS_ERROR ${TARNVALE_WERROR})

# Programs are position independent. Nobody may replace what is in them, so calls within a program
# stay direct, although CMake compiles a static library as if a shared one might contain it.
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_OBJCXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

if(NOT DEFINED TARNVALE_BIN_DIR)
    set(TARNVALE_BIN_DIR "${PROJECT_BINARY_DIR}/bin")
endif()

# What every target of ours is compiled and linked with; each asks for it itself.
add_library(tarnvale_options INTERFACE)
target_include_directories(tarnvale_options INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_options(tarnvale_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    # g++ 12 takes the joining of a literal and a temporary string for an overlap (GCC bug 105651).
    $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-restrict>
    $<$<CXX_COMPILER_ID:Clang,AppleClang>:-Wthread-safety>
    -fstack-protector-strong -ffunction-sections -fdata-sections
    # The same sources give the same bytes in any folder. A debug build keeps its paths, by which
    # debuggers and the sanitizers' reports find the sources.
    $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>
    $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_BINARY_DIR}=./build>)
target_compile_definitions(tarnvale_options INTERFACE
    $<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS>)
# What only tests run, which most of a build compiles, is compiled quickly rather than made quick.
# _FORTIFY_SOURCE takes optimisation.
define_property(TARGET PROPERTY TARNVALE_FOR_TESTS BRIEF_DOCS "Whether only tests run it")
set(for_tests $<BOOL:$<TARGET_PROPERTY:TARNVALE_FOR_TESTS>>)
target_compile_options(tarnvale_options INTERFACE $<${for_tests}:-O0>)
# g++ looks for what it could free, again and again, from a few megabytes on: a tenth of its time.
target_compile_options(tarnvale_options INTERFACE
    "$<$<AND:${for_tests},$<COMPILE_LANG_AND_ID:CXX,GNU>>:SHELL:--param ggc-min-heapsize=1000000>")
# Compiled together with others, a source may give a local name that another one gives to something
# global.
target_compile_options(tarnvale_options INTERFACE $<$<BOOL:$<TARGET_PROPERTY:UNITY_BUILD>>:-Wno-shadow>)
if(NOT TARNVALE_SANITIZE)
    target_compile_definitions(tarnvale_options INTERFACE
        $<$<AND:$<CONFIG:Release>,$<NOT:${for_tests}>>:_FORTIFY_SOURCE=2>)
endif()
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
    target_link_options(tarnvale_options INTERFACE
        LINKER:-z,relro,-z,now LINKER:--gc-sections LINKER:--as-needed)
    # A change in a leaf links most test programs again, for which lld takes a fifth of the time.
    if(CMAKE_BUILD_TYPE STREQUAL "Debug" AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        find_program(TARNVALE_LLD ld.lld)
        if(TARNVALE_LLD)
            target_link_options(tarnvale_options INTERFACE -fuse-ld=lld)
        endif()
    endif()
elseif(CMAKE_SYSTEM_NAME STREQUAL "Darwin")
    target_compile_options(tarnvale_options INTERFACE
        -Wunguarded-availability
        $<$<COMPILE_LANGUAGE:OBJCXX>:-fobjc-arc>)
    target_link_options(tarnvale_options INTERFACE LINKER:-dead_strip)
endif()
if(TARNVALE_SANITIZE)
    target_compile_options(tarnvale_options INTERFACE
        -fsanitize=${TARNVALE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
        $<$<CXX_COMPILER_ID:Clang>:-fsanitize-ignorelist=${PROJECT_SOURCE_DIR}/cmake/sanitizer-ignorelist.txt>
        # To optimise what it has inlined takes clang a quarter of its time here. Only what makes the code no
        # larger is.
        "$<$<CXX_COMPILER_ID:Clang>:SHELL:-mllvm -inline-threshold=0>")
    target_link_options(tarnvale_options INTERFACE -fsanitize=${TARNVALE_SANITIZE})
    if(TARNVALE_SANITIZE MATCHES thread)
        target_compile_definitions(tarnvale_options INTERFACE TARNVALE_THREAD_SANITIZER)
    endif()
endif()
if(TARNVALE_FUZZ)
    target_compile_options(tarnvale_options INTERFACE $<$<NOT:${for_tests}>:-fsanitize=fuzzer-no-link>)
endif()

# Nothing below tests/ is shipped.
function(tarnvale_mark_for_tests target)
    set(tests "${PROJECT_SOURCE_DIR}/tests")
    cmake_path(IS_PREFIX tests "${CMAKE_CURRENT_SOURCE_DIR}" for_tests)
    set_target_properties(${target} PROPERTIES TARNVALE_FOR_TESTS ${for_tests})
endfunction()

# The standard headers that many sources include; those of tests have flags of their own. The builds
# without them show that each source includes what it needs.
function(tarnvale_precompile_standard name for_tests)
    file(CONFIGURE OUTPUT "${PROJECT_BINARY_DIR}/PrecompiledStandard.cpp" CONTENT "")
    add_library(${name} STATIC EXCLUDE_FROM_ALL "${PROJECT_BINARY_DIR}/PrecompiledStandard.cpp")
    set_target_properties(${name} PROPERTIES TARNVALE_FOR_TESTS ${for_tests})
    target_link_libraries(${name} PRIVATE tarnvale_options)
    target_precompile_headers(${name} PRIVATE
        <algorithm> <array> <chrono> <cstdint> <functional> <map> <memory> <optional> <span>
        <stdexcept> <string> <string_view> <system_error> <utility> <vector>)
endfunction()
if(TARNVALE_PCH_STANDARD)
    tarnvale_precompile_standard(tarnvale_precompiled_standard OFF)
endif()
if(TARNVALE_PCH AND CMAKE_SYSTEM_NAME STREQUAL "Linux")
    tarnvale_precompile_standard(tarnvale_precompiled_for_tests ON)
endif()

# Compiles some of its sources at once, if that is asked for.
function(tarnvale_compile_together target)
    get_target_property(sources ${target} SOURCES)
    list(LENGTH sources count)
    get_target_property(for_tests ${target} TARNVALE_FOR_TESTS)
    if(count EQUAL 1)
        return()
    elseif(for_tests AND TARNVALE_TESTS_TOGETHER)
        set_target_properties(${target} PROPERTIES UNITY_BUILD ON)
    elseif(TARNVALE_PRODUCTS_TOGETHER AND NOT for_tests)
        set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 16)
    endif()
endfunction()

function(tarnvale_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS")
    add_library(${name} STATIC ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE tarnvale_options ${arg_DEPENDS})
    tarnvale_mark_for_tests(${name})
    get_target_property(for_tests ${name} TARNVALE_FOR_TESTS)
    if(for_tests AND TARGET tarnvale_precompiled_for_tests)
        target_precompile_headers(${name} REUSE_FROM tarnvale_precompiled_for_tests)
    elseif(NOT for_tests AND TARGET tarnvale_precompiled_standard)
        target_precompile_headers(${name} REUSE_FROM tarnvale_precompiled_standard)
    endif()
    tarnvale_compile_together(${name})
    set_property(GLOBAL APPEND PROPERTY tarnvale_targets ${name})
endfunction()

function(tarnvale_program name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS")
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE tarnvale_options ${arg_DEPENDS})
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${TARNVALE_BIN_DIR}")
    tarnvale_mark_for_tests(${name})
    tarnvale_compile_together(${name})
    set_property(GLOBAL APPEND PROPERTY tarnvale_targets ${name})
    # Loading a shared libstdc++ costs a small program most of its start-up time.
    if(CMAKE_SYSTEM_NAME STREQUAL "Linux" AND NOT TARNVALE_SANITIZE)
        target_link_options(${name} PRIVATE -static-libstdc++ -static-libgcc)
    endif()
endfunction()

# Late enough for a sanitizer on a busy machine.
set(TARNVALE_TEST_TIMEOUT 180 CACHE STRING "Seconds after which a test that hangs is ended")
if(TARNVALE_TESTS)
    enable_testing()
    find_package(GTest REQUIRED)
    include(GoogleTest)
endif()
if(TARNVALE_TESTS AND CMAKE_SYSTEM_NAME STREQUAL "Linux")
    if(TARNVALE_PCH)
        # Made for a program: the flags for position independence differ from a library's.
        file(CONFIGURE OUTPUT "${PROJECT_BINARY_DIR}/Precompiled.cpp" CONTENT "int main() {}\n")
        add_executable(tarnvale_precompiled EXCLUDE_FROM_ALL "${PROJECT_BINARY_DIR}/Precompiled.cpp")
        target_link_libraries(tarnvale_precompiled PRIVATE tarnvale_options GTest::gmock)
        set_target_properties(tarnvale_precompiled PROPERTIES TARNVALE_FOR_TESTS ON)
        target_precompile_headers(tarnvale_precompiled PRIVATE
            "${PROJECT_SOURCE_DIR}/tests/support/Precompiled.h")
    endif()

    # A test program enters its private root before its first test (tests/support/TestMain.cpp).
    # Contained sources touch nothing outside themselves: they are a program of their own that needs
    # no private root. Portable ones are contained and run on a Mac as well. TARNVALE_BIN_DIR says
    # where the project's programs are; a test that runs one depends on it.
    #
    # FIRST: tests that mostly wait, and longer than others. They start before all others, so that none
    # is waited for at the end; ctest itself knows only what it has run before.
    #
    # THREADS: threads share something in what it tests. The thread sanitizer runs these tests only
    # (docs/development.md).
    add_custom_target(threaded-tests)
    function(tarnvale_test name)
        cmake_parse_arguments(PARSE_ARGV 1 arg "THREADS" "TIMEOUT"
            "SOURCES;CONTAINED_SOURCES;PORTABLE_SOURCES;DEPENDS;LABELS;FIRST")
        if(arg_SOURCES)
            tarnvale_test_program(${name} tarnvale_test_main "${arg_SOURCES}")
        endif()
        set(contained ${arg_CONTAINED_SOURCES} ${arg_PORTABLE_SOURCES})
        if(contained)
            tarnvale_test_program(contained_${name} tarnvale_contained_test_main "${contained}")
        endif()
    endfunction()

    # Uses the arguments of the tarnvale_test that calls it.
    macro(tarnvale_test_program program main sources)
        add_executable(${program} ${sources})
        target_link_libraries(${program} PRIVATE
            tarnvale_options ${arg_DEPENDS} ${main} GTest::gmock)
        set_target_properties(${program} PROPERTIES TARNVALE_FOR_TESTS ON)
        target_compile_definitions(${program} PRIVATE TARNVALE_BIN_DIR="${TARNVALE_BIN_DIR}"
            TARNVALE_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
        tarnvale_compile_together(${program})
        if(TARNVALE_PCH)
            target_precompile_headers(${program} REUSE_FROM tarnvale_precompiled)
        endif()
        if(arg_THREADS)
            add_dependencies(threaded-tests ${program})
        elseif(TARNVALE_SANITIZE MATCHES thread)
            return()
        endif()
        set(timeout ${TARNVALE_TEST_TIMEOUT})
        if(arg_TIMEOUT)
            set(timeout ${arg_TIMEOUT})
        endif()
        set(properties TIMEOUT ${timeout} SKIP_RETURN_CODE 77
            SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]")
        if(arg_LABELS)
            list(APPEND properties LABELS "${arg_LABELS}")
        endif()
        gtest_discover_tests(${program} DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
        if(arg_FIRST)
            string(JOIN " " first ${arg_FIRST})
            file(CONFIGURE OUTPUT ${program}_first.cmake CONTENT
                "set_tests_properties(@first@ PROPERTIES COST 10)\n" @ONLY)
            set_property(DIRECTORY APPEND PROPERTY
                TEST_INCLUDE_FILES "${CMAKE_CURRENT_BINARY_DIR}/${program}_first.cmake")
        endif()
    endmacro()
elseif(TARNVALE_TESTS)
    # Without private roots, only the tests that touch nothing outside themselves are built.
    function(tarnvale_test name)
        cmake_parse_arguments(PARSE_ARGV 1 arg "THREADS" "TIMEOUT"
            "SOURCES;CONTAINED_SOURCES;PORTABLE_SOURCES;DEPENDS;LABELS;FIRST")
        if(arg_PORTABLE_SOURCES)
            add_executable(${name} ${arg_PORTABLE_SOURCES})
            target_link_libraries(${name} PRIVATE
                tarnvale_options ${arg_DEPENDS} GTest::gmock_main)
            # GoogleTest is there only for this machine's processor.
            if(CMAKE_OSX_ARCHITECTURES)
                set_target_properties(${name} PROPERTIES
                    OSX_ARCHITECTURES "${CMAKE_HOST_SYSTEM_PROCESSOR}")
            endif()
            gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST)
        endif()
    endfunction()
else()
    function(tarnvale_test)
    endfunction()
endif()

if(TARNVALE_FUZZ)
    add_custom_target(fuzzers)
endif()
function(tarnvale_fuzzer name)
    if(NOT TARNVALE_FUZZ)
        return()
    endif()
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS")
    # Compiled as for a library, for which the precompiled headers are.
    add_library(${name}_objects OBJECT EXCLUDE_FROM_ALL ${arg_SOURCES})
    target_link_libraries(${name}_objects PRIVATE tarnvale_options ${arg_DEPENDS})
    if(TARGET tarnvale_precompiled_standard)
        target_precompile_headers(${name}_objects REUSE_FROM tarnvale_precompiled_standard)
    endif()
    add_executable(${name} EXCLUDE_FROM_ALL $<TARGET_OBJECTS:${name}_objects>)
    target_link_libraries(${name} PRIVATE tarnvale_options ${arg_DEPENDS})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    add_dependencies(fuzzers ${name})
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/fuzz")
endfunction()
