# What `cmake --install` puts where, and the Debian package that `cpack -G DEB` makes of it.
# Debian wants these compressed without a time stamp, so that two builds give the same bytes.
set(compressed)
foreach(pair "doc/kestrel.1=kestrel.1.gz" "doc/changelog.debian=changelog.gz")
  string(REPLACE "=" ";" pair "${pair}")
  list(GET pair 0 source)
  list(GET pair 1 result)
  add_custom_command(OUTPUT doc/${result}
    COMMAND ${CMAKE_COMMAND} -E make_directory doc
    COMMAND gzip -n9c ${PROJECT_SOURCE_DIR}/${source} > doc/${result}
    DEPENDS ${source} VERBATIM)
  list(APPEND compressed ${PROJECT_BINARY_DIR}/doc/${result})
endforeach()
add_custom_target(documents ALL DEPENDS ${compressed})

install(TARGETS kestrel RUNTIME)
install(FILES ${PROJECT_BINARY_DIR}/doc/kestrel.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES completion/kestrel.bash RENAME kestrel
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES doc/copyright ${PROJECT_BINARY_DIR}/doc/changelog.gz
  DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "kestrel maintainers <maintainers@kestrel.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "conformance and diagnostics harness for PKCS#11 tokens")
set(CPACK_PACKAGE_DESCRIPTION "\
kestrel drives a smart card, a USB token or an HSM through its vendor's
PKCS#11 module, reports every call as passed or failed with its return
value, and checks with OpenSSL what the token computes. Reports of two
modules, or of two versions of one, can be compared line by line.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
include(CPack)
