# What is installed, and the Debian package of it.
include(GNUInstallDirs)

set(XRDEFRAG_STRINGS_DIR ${CMAKE_INSTALL_DATADIR}/xrdefrag/strings)

install(TARGETS xrdefrag RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS xrdefrag-view RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES translations/template.plist translations/de.plist DESTINATION ${XRDEFRAG_STRINGS_DIR})
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR})
foreach(program xrdefrag xrdefrag-view)
  install(FILES packaging/completions/${program}.bash RENAME ${program}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES packaging/completions/_${program}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
  install(FILES packaging/completions/${program}.fish
          DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
endforeach()

# Debian wants manual pages and change logs compressed, reproducibly.
find_program(GZIP gzip REQUIRED)
function(xrdefrag_install_compressed source destination name)
  set(compressed ${CMAKE_CURRENT_BINARY_DIR}/compressed/${name}.gz)
  add_custom_command(OUTPUT ${compressed}
                     COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/compressed
                     COMMAND ${GZIP} -9nc ${CMAKE_SOURCE_DIR}/${source} > ${compressed}
                     DEPENDS ${CMAKE_SOURCE_DIR}/${source} VERBATIM)
  add_custom_target(compressed_${name} ALL DEPENDS ${compressed})
  install(FILES ${compressed} DESTINATION ${destination})
endfunction()
xrdefrag_install_compressed(packaging/man/xrdefrag.8 ${CMAKE_INSTALL_MANDIR}/man8 xrdefrag.8)
xrdefrag_install_compressed(packaging/man/xrdefrag-view.8 ${CMAKE_INSTALL_MANDIR}/man8
                            xrdefrag-view.8)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME xrdefrag)
set(CPACK_PACKAGE_CONTACT "The authors of xrdefrag <authors@xrdefrag.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "offline analyser and defragmenter for HFS Plus volumes")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "xrdefrag opens the HFS Plus volume on a block device or in an image file
without any file-system driver. It reports every file's extents, the
volume's fragmentation and its allocation bitmap, and rewrites the volume
so that every fork lies in one piece, or all data at the front.
.
xrdefrag-view shows all that in a terminal, as a page, or as JSON.
.
Every batch of moves is atomic: a crash at any moment costs nothing but
starting the program again.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/package)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
    GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# A Debian package's own documents stand in a folder of the package's name, whatever the project's is.
install(FILES packaging/debian/copyright DESTINATION share/doc/${CPACK_PACKAGE_NAME})
xrdefrag_install_compressed(packaging/debian/changelog share/doc/${CPACK_PACKAGE_NAME} changelog)
include(CPack)
