# What the library and its components have in common.
#
#   korvo_add_component(EventLoop
#     DESCRIPTION "a scheduler on libuv"
#     SOURCES src/EventLoop.cpp
#     HEADERS src-includes/api/Korvo/EventLoop.h
#     MODULES libuv            # what it links, as pkg-config calls it
#     COMPONENTS Other         # further components that it is built on
#     INCLUDE_DIR include)     # unless the headers stand in src-includes/api
#
# makes Korvo::EventLoop: a library libKorvoEventLoop on top of KorvoAPI that find_package(KorvoAPI
# COMPONENTS EventLoop), pkg-config KorvoEventLoop and add_subdirectory give. What the sources need
# beyond that is added to the target KorvoEventLoop. A component with a folder of its own is made by
# components/FOLDER/CMakeLists.txt, and its tests by components/FOLDER/tests/CMakeLists.txt. Its
# Debian package and what else names the components: debian/README.source.

# korvo_add_library(TARGET EXPORT_NAME SOURCES... HEADERS... [INCLUDE_DIR...]): a library and its
# alias.
function(korvo_add_library target export_name)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "INCLUDE_DIR" "SOURCES;HEADERS")
  if(NOT arg_INCLUDE_DIR)
    set(arg_INCLUDE_DIR "${PROJECT_SOURCE_DIR}/src-includes/api")
  endif()
  add_library(${target} ${arg_SOURCES})
  add_library(Korvo::${export_name} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    EXPORT_NAME ${export_name}
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    # The objects of shared and of static libraries are the same.
    POSITION_INDEPENDENT_CODE ON
    DEFINE_SYMBOL ""
    # All libraries beside each other, wherever their sources are.
    LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}"
    ARCHIVE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}"
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    # Installed libraries find each other beside themselves, wherever the folder is.
    INSTALL_RPATH "$ORIGIN"
    # Each source keeps its private names and its own flags.
    UNITY_BUILD OFF
    VERIFY_INTERFACE_HEADER_SETS ${PROJECT_IS_TOP_LEVEL})
  target_sources(${target} PUBLIC FILE_SET HEADERS BASE_DIRS ${arg_INCLUDE_DIR}
                 FILES ${arg_HEADERS})
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:korvo_build_flags>)
endfunction()

function(korvo_add_component name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "DESCRIPTION;INCLUDE_DIR"
                        "SOURCES;HEADERS;MODULES;COMPONENTS")
  set(target Korvo${name})
  korvo_add_library(${target} ${name} SOURCES ${arg_SOURCES} HEADERS ${arg_HEADERS}
                    INCLUDE_DIR ${arg_INCLUDE_DIR})
  target_link_libraries(${target} PUBLIC Korvo::KorvoAPI)
  # All that it is built on, those first that others are built on.
  set(components)
  foreach(component IN LISTS arg_COMPONENTS)
    target_link_libraries(${target} PUBLIC Korvo::${component})
    get_target_property(below Korvo${component} KORVO_COMPONENTS)
    list(APPEND components ${below} ${component})
  endforeach()
  list(REMOVE_DUPLICATES components)
  set_target_properties(${target} PROPERTIES KORVO_COMPONENTS "${components}")
  if(arg_MODULES)
    find_package(PkgConfig REQUIRED)
  endif()
  foreach(module IN LISTS arg_MODULES)
    pkg_check_modules(${module} REQUIRED IMPORTED_TARGET GLOBAL ${module})
    target_link_libraries(${target} PRIVATE PkgConfig::${module})
  endforeach()
  if(KORVO_INSTALL)
    list(JOIN arg_MODULES ", " modules)
    set(requires "KorvoAPI = ${PROJECT_VERSION}")
    foreach(component IN LISTS arg_COMPONENTS)
      list(APPEND requires "Korvo${component} = ${PROJECT_VERSION}")
    endforeach()
    korvo_install(${target} "${PROJECT_DESCRIPTION}: ${arg_DESCRIPTION}" "${requires}" "${modules}")
    # For the CMake package.
    set_property(GLOBAL APPEND_STRING PROPERTY KORVO_COMPONENT_NEEDS
"set(_korvo_${name}_components ${components})
set(_korvo_${name}_modules ${arg_MODULES})
")
  endif()
endfunction()

# korvo_install(TARGET DESCRIPTION REQUIRES REQUIRES_OF_STATIC): library, headers, export set and
# pkg-config file. Each library is an export set of its own: a user who does not ask for a component
# needs none of what it depends on.
function(korvo_install target description requires requires_of_static)
  install(TARGETS ${target} EXPORT ${target}Targets
          RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
          FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(EXPORT ${target}Targets NAMESPACE Korvo:: DESTINATION ${KORVO_CMAKE_DIR})

  # A static library's users link what it uses; a shared one has linked it already.
  if(NOT BUILD_SHARED_LIBS)
    list(APPEND requires ${requires_of_static})
  endif()
  list(JOIN requires ", " requires)
  set(folder "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig")
  cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY "${folder}"
             OUTPUT_VARIABLE libdir)
  cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY "${folder}"
             OUTPUT_VARIABLE includedir)
  set(libs "-L\${libdir} -l${target}")
  # Programs find the library where it is. A distribution, which sets this variable, has it where
  # the system looks by itself.
  if(BUILD_SHARED_LIBS AND NOT CMAKE_SKIP_INSTALL_RPATH AND NOT CMAKE_SKIP_RPATH)
    string(APPEND libs " -Wl,-rpath,\${libdir}")
  endif()
  set(cflags "-I\${includedir}")
  if(NOT KORVO_VELTO_IS_STAND_IN)
    string(PREPEND cflags "-I${KORVO_VELTO_INCLUDE_DIR} ")
  endif()
  configure_file("${PROJECT_SOURCE_DIR}/cmake/pkgconfig.pc.in" "${PROJECT_BINARY_DIR}/${target}.pc"
                 @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/${target}.pc"
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
