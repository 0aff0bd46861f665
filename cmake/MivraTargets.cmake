# The targets that every folder adds to, and the functions it adds with.
include_guard()

# Compile options shared by everything that is built here; never exported to consumers.
add_library(mivra_options INTERFACE)
target_compile_features(mivra_options INTERFACE cxx_std_20)
target_compile_options(mivra_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2 -Werror
  -fno-omit-frame-pointer -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
target_compile_options(mivra_options INTERFACE $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
target_include_directories(mivra_options INTERFACE ${PROJECT_SOURCE_DIR})
if(MIVRA_SANITIZE STREQUAL "address")
  target_compile_options(mivra_options INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=all)
  target_link_options(mivra_options INTERFACE -fsanitize=address,undefined)
  target_compile_definitions(mivra_options INTERFACE MIVRA_SANITIZED=1)
elseif(MIVRA_SANITIZE STREQUAL "thread")
  target_compile_options(mivra_options INTERFACE -fsanitize=thread)
  target_link_options(mivra_options INTERFACE -fsanitize=thread)
  target_compile_definitions(mivra_options INTERFACE MIVRA_SANITIZED=1)
endif()
if(MIVRA_BUILD_FUZZERS)
  target_compile_options(mivra_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

find_package(Threads REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
find_package(PkgConfig REQUIRED)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
# Headers only: the libraries are loaded at run time.
pkg_check_modules(FFMPEG REQUIRED libavutil libavformat libavcodec libswscale libswresample libavfilter)
add_library(mivra_ffmpeg_headers INTERFACE)
target_include_directories(mivra_ffmpeg_headers SYSTEM INTERFACE ${FFMPEG_INCLUDE_DIRS})

# mivra_sources(FILE...): sources of the library, relative to the calling folder.
function(mivra_sources)
  target_sources(mivra_objects PRIVATE ${ARGN})
endfunction()

# mivra_public_headers(FILE...): headers that are installed, relative to the calling folder.
function(mivra_public_headers)
  foreach(header IN LISTS ARGN)
    set_property(GLOBAL APPEND PROPERTY MIVRA_PUBLIC_HEADERS ${CMAKE_CURRENT_SOURCE_DIR}/${header})
  endforeach()
endfunction()
