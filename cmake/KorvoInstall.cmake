# The CMake package and what is installed once. It finds everything relative to where it stands, so
# that an installed tree can be moved; so do the pkg-config files.

get_property(KORVO_COMPONENT_NEEDS GLOBAL PROPERTY KORVO_COMPONENT_NEEDS)
if(TARGET korvo)
  install(TARGETS korvo EXPORT KorvoToolTargets RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(EXPORT KorvoToolTargets NAMESPACE Korvo:: DESTINATION ${KORVO_CMAKE_DIR})
  install(FILES "${PROJECT_SOURCE_DIR}/cmake/KorvoGenerate.cmake"
                "${PROJECT_SOURCE_DIR}/cmake/KorvoCheckLayouts.cmake"
          DESTINATION ${KORVO_CMAKE_DIR})
endif()

configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/KorvoAPIConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/KorvoAPIConfig.cmake"
  INSTALL_DESTINATION ${KORVO_CMAKE_DIR})
write_basic_package_version_file("${PROJECT_BINARY_DIR}/KorvoAPIConfigVersion.cmake"
                                 COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/KorvoAPIConfig.cmake"
              "${PROJECT_BINARY_DIR}/KorvoAPIConfigVersion.cmake"
        DESTINATION ${KORVO_CMAKE_DIR})
install(FILES "${PROJECT_SOURCE_DIR}/cmake/tsan.supp" DESTINATION ${CMAKE_INSTALL_DATADIR}/KorvoAPI)
