# Helpers shared by every folder's CMakeLists.

# qlb_library(NAME SOURCES ... [DEPS ...]): a static, position-independent library of one subsystem or
# runtime piece. Modules loaded with dlopen link them too.
function(qlb_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR}/src)
    if(ARG_DEPS)
        target_link_libraries(${name} PUBLIC ${ARG_DEPS})
    endif()
endfunction()

# qlb_module(NAME FILE SOURCES ... [DEPS ...]): a shared object named exactly FILE in the program
# directory (e.g. MonProcess.dll), loaded at run time with dlopen.
function(qlb_module name file)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
    add_library(${name} MODULE ${ARG_SOURCES})
    get_filename_component(base ${file} NAME_WLE)
    get_filename_component(ext ${file} LAST_EXT)
    set_target_properties(${name} PROPERTIES PREFIX "" OUTPUT_NAME ${base} SUFFIX ${ext}
                                             CXX_VISIBILITY_PRESET hidden)
    if(ARG_DEPS)
        target_link_libraries(${name} PRIVATE ${ARG_DEPS})
    endif()
endfunction()

# qlb_test(NAME SOURCES ... [DEPS ...] [LABELS ...]): a GoogleTest executable under build/tests,
# registered with CTest test by test.
function(qlb_test name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;LABELS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
    target_link_libraries(${name} PRIVATE ${ARG_DEPS} qlb_test_support GTest::gmock GTest::gtest_main)
    target_compile_definitions(${name} PRIVATE QLB_PROGRAM_DIR="${QLB_PROGRAM_DIR}"
                                               QLB_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
    if(NOT ARG_LABELS)
        set(ARG_LABELS unit)
    endif()
    gtest_discover_tests(${name} PROPERTIES LABELS "${ARG_LABELS}" DISCOVERY_TIMEOUT 60)
endfunction()

# qlb_bench(NAME SOURCES ... [DEPS ...]): a Google Benchmark executable under build/bench.
function(qlb_bench name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
    target_link_libraries(${name} PRIVATE ${ARG_DEPS} benchmark::benchmark)
    target_compile_definitions(${name} PRIVATE QLB_PROGRAM_DIR="${QLB_PROGRAM_DIR}")
endfunction()

# qlb_fuzzer(NAME SOURCES ... [DEPS ...] [CORPUS dir]): a libFuzzer target under build/fuzz; only
# built with QLB_BUILD_FUZZ and clang. Its seed corpus lies in tests/fuzz/corpus/NAME.
function(qlb_fuzzer name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
    if(NOT QLB_BUILD_FUZZ)
        return()
    endif()
    add_executable(${name} ${ARG_SOURCES})
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
    target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    target_link_libraries(${name} PRIVATE ${ARG_DEPS})
endfunction()
