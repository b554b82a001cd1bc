include(CMakePackageConfigHelpers)

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/textpackage")

set(installed_targets textpackage)
if(TARGET opccore)
  list(APPEND installed_targets opccore)
endif()
install(
  TARGETS ${installed_targets}
  EXPORT textpackage
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
if(TARGET opctext)
  install(TARGETS opctext DESTINATION "${CMAKE_INSTALL_BINDIR}")
endif()
install(
  EXPORT textpackage
  NAMESPACE textpackage::
  DESTINATION "${package_dir}")
# Headers that serve one library alone stay at home.
set(internal_headers
    FileDescriptor.hpp
    FileStreams.hpp
    NativePath.hpp
    RandomName.hpp
    StagedFile.hpp
    SystemError.hpp
    removeTree.hpp
    Base64Encoder.hpp
    PartIndex.hpp
    PartScanner.hpp
    ScopeGuard.hpp
    StreamLines.hpp)
list(JOIN internal_headers "|" internal_headers)
install(
  DIRECTORY "${PROJECT_SOURCE_DIR}/opccore" "${PROJECT_SOURCE_DIR}/textpackage"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  FILES_MATCHING
  PATTERN "*.hpp"
  REGEX "/(${internal_headers})$" EXCLUDE)

configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/textpackage-config.cmake.in"
                              "${PROJECT_BINARY_DIR}/textpackage-config.cmake" INSTALL_DESTINATION "${package_dir}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/textpackage-config-version.cmake" COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/textpackage-config.cmake" "${PROJECT_BINARY_DIR}/textpackage-config-version.cmake"
        DESTINATION "${package_dir}")
