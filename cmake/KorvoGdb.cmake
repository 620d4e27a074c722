# gdb's pretty printers. gdb loads NAME-gdb.py by itself with a library called NAME: from the
# library's folder, as in the build folder here, or from share/gdb/auto-load and the library's path
# behind it. A program that has linked the static library sources the file.

set(korvo_printers "${PROJECT_SOURCE_DIR}/gdb/korvo_printers.py")
if(BUILD_SHARED_LIBS)
  file(GENERATE OUTPUT "$<TARGET_FILE:KorvoAPI>-gdb.py" INPUT "${korvo_printers}")
endif()

if(KORVO_INSTALL)
  install(FILES "${korvo_printers}" DESTINATION "${CMAKE_INSTALL_DATADIR}/KorvoAPI")
  if(BUILD_SHARED_LIBS)
    # The library's path is known when it is installed. A package is laid out in a folder of CPack's
    # first, and installed where the project was configured to be.
    install(CODE "
      set(prefix \"\${CMAKE_INSTALL_PREFIX}\")
      if(prefix MATCHES \"/_CPack_Packages/\")
        set(prefix \"${CMAKE_INSTALL_PREFIX}\")
      endif()
      set(library_dir \"${CMAKE_INSTALL_LIBDIR}\")
      set(data_dir \"${CMAKE_INSTALL_DATADIR}\")
      cmake_path(ABSOLUTE_PATH library_dir BASE_DIRECTORY \"\${prefix}\" NORMALIZE)
      cmake_path(ABSOLUTE_PATH data_dir BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\" NORMALIZE)
      file(INSTALL DESTINATION \"\${data_dir}/gdb/auto-load\${library_dir}\" TYPE FILE
           RENAME \"$<TARGET_FILE_NAME:KorvoAPI>-gdb.py\" FILES \"${korvo_printers}\")")
  endif()
endif()
