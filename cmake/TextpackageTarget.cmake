# What every target of ours has in common: the language level, hidden symbols and the warnings.
function(textpackage_configure_target target)
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(
    ${target}
    PROPERTIES CXX_EXTENSIONS OFF
               CXX_VISIBILITY_PRESET hidden
               VISIBILITY_INLINES_HIDDEN ON
               POSITION_INDEPENDENT_CODE ON)
  if(TEXTPACKAGE_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
  endif()
endfunction()

# A shared library whose headers stand beside its sources and are included from the repository root.
function(textpackage_add_library name)
  add_library(${name} SHARED ${ARGN})
  add_library(textpackage::${name} ALIAS ${name})
  textpackage_configure_target(${name})
  target_include_directories(
    ${name} PUBLIC "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>" "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
endfunction()
