# Installation: headers, library, CMake package and pkg-config file. Both packages find everything
# relative to where they stand, so that an installed tree can be moved.

set(korvo_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/KorvoAPI")

# Each library is an export set of its own: a user who does not ask for a component needs none of
# what it depends on.
function(korvo_install target export)
  install(TARGETS ${target} EXPORT ${export}
          RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
          FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(EXPORT ${export} NAMESPACE Korvo:: FILE ${export}.cmake
          DESTINATION ${korvo_package_dir})
endfunction()

korvo_install(KorvoAPI KorvoAPITargets)
if(TARGET KorvoEventLoop)
  korvo_install(KorvoEventLoop KorvoEventLoopTargets)
endif()

if(TARGET korvo)
  install(TARGETS korvo EXPORT KorvoToolTargets RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(EXPORT KorvoToolTargets NAMESPACE Korvo:: DESTINATION ${korvo_package_dir})
  install(FILES "${PROJECT_SOURCE_DIR}/cmake/KorvoGenerate.cmake"
                "${PROJECT_SOURCE_DIR}/cmake/KorvoCheckLayouts.cmake"
          DESTINATION ${korvo_package_dir})
endif()

configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/KorvoAPIConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/KorvoAPIConfig.cmake"
  INSTALL_DESTINATION ${korvo_package_dir})
write_basic_package_version_file("${PROJECT_BINARY_DIR}/KorvoAPIConfigVersion.cmake"
                                 COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/KorvoAPIConfig.cmake"
              "${PROJECT_BINARY_DIR}/KorvoAPIConfigVersion.cmake"
        DESTINATION ${korvo_package_dir})

# pkg-config
set(korvo_pc_dir "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig")
file(RELATIVE_PATH KORVO_PC_LIBDIR "${korvo_pc_dir}" "${CMAKE_INSTALL_FULL_LIBDIR}")
file(RELATIVE_PATH KORVO_PC_INCLUDEDIR "${korvo_pc_dir}" "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
string(REGEX REPLACE "/$" "" KORVO_PC_LIBDIR "${KORVO_PC_LIBDIR}")
string(REGEX REPLACE "/$" "" KORVO_PC_INCLUDEDIR "${KORVO_PC_INCLUDEDIR}")
if(KORVO_VELTO_IS_STAND_IN)
  set(KORVO_PC_VELTO_CFLAGS "")
else()
  set(KORVO_PC_VELTO_CFLAGS "-I${KORVO_VELTO_INCLUDE_DIR} ")
endif()
# A static library's users link what it uses; a shared one has linked it already.
if(BUILD_SHARED_LIBS)
  set(KORVO_PC_REQUIRES_FIELD Requires.private)
else()
  set(KORVO_PC_REQUIRES_FIELD Requires)
endif()
function(korvo_install_pc name)
  configure_file("${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in" "${PROJECT_BINARY_DIR}/${name}.pc" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/${name}.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
korvo_install_pc(KorvoAPI)
if(TARGET KorvoEventLoop)
  korvo_install_pc(KorvoEventLoop)
endif()
