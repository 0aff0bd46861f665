# What `cmake --install` lays down: library, public headers, CMake package, pkg-config module and documents (the
# tool's folder adds the tool). Everything finds the rest relative to itself, so that the installed tree can be moved.
include(CMakePackageConfigHelpers)

install(TARGETS MivraCommon EXPORT MivraCommonTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

get_property(mivra_headers GLOBAL PROPERTY MIVRA_PUBLIC_HEADERS)
foreach(header IN LISTS mivra_headers)
  cmake_path(RELATIVE_PATH header BASE_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE relative)
  cmake_path(GET relative PARENT_PATH folder)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder})
endforeach()

set(mivra_package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/MivraCommon)
install(EXPORT MivraCommonTargets NAMESPACE Mivra:: DESTINATION ${mivra_package_folder})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/MivraCommonConfig.cmake.in
  ${PROJECT_BINARY_DIR}/MivraCommonConfig.cmake INSTALL_DESTINATION ${mivra_package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/MivraCommonConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/MivraCommonConfig.cmake ${PROJECT_BINARY_DIR}/MivraCommonConfigVersion.cmake
  DESTINATION ${mivra_package_folder})

# From the folder of the module back to the prefix, for example "../..".
set(mivra_pc_folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH MIVRA_PC_TO_PREFIX /${mivra_pc_folder} /)
string(REGEX REPLACE "/$" "" MIVRA_PC_TO_PREFIX ${MIVRA_PC_TO_PREFIX})
configure_file(${PROJECT_SOURCE_DIR}/cmake/mivra-common.pc.in ${PROJECT_BINARY_DIR}/mivra-common.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/mivra-common.pc DESTINATION ${mivra_pc_folder})

install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING PATTERN "*.md")
