# Functions of the tests and fuzz targets.
include_guard()
find_package(GTest REQUIRED)
include(GoogleTest)

# mivra_test(NAME SOURCE...): a test program on the library's objects; every case is a test of its own.
function(mivra_test name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE mivra_test_support mivra_objects mivra_ffmpeg_headers
    GTest::gtest GTest::gmock GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE MIVRA_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
    MIVRA_BINARY_DIR="${PROJECT_BINARY_DIR}")
  gtest_discover_tests(${name} NO_PRETTY_VALUES DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 600)
endfunction()

# mivra_fuzz_target(NAME SOURCE): a libFuzzer program in the fuzz build, and everywhere a replay of
# fuzz/corpus/NAME (seeds and every crash found) as the test replay_NAME.
function(mivra_fuzz_target name source)
  if(MIVRA_BUILD_FUZZERS)
    add_executable(fuzz_${name} ${source})
    target_link_libraries(fuzz_${name} PRIVATE mivra_objects)
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  endif()
  add_executable(replay_${name} ${source} ${PROJECT_SOURCE_DIR}/fuzz/Replay.cpp)
  target_link_libraries(replay_${name} PRIVATE mivra_objects)
  add_test(NAME replay_${name} COMMAND replay_${name} ${PROJECT_SOURCE_DIR}/fuzz/corpus/${name})
endfunction()
