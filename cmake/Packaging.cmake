# What `cmake --install` puts where, the Debian package that `cpack -G DEB` makes of it, and the
# source package of `cpack --config CPackSourceConfig.cmake`.

# install_compressed(SOURCE RESULT FOLDER): as Debian wants documents, compressed, and without a time
# stamp, so that two builds give the same bytes.
add_custom_target(documents ALL)
function(install_compressed source result folder)
  add_custom_command(OUTPUT doc/${result}
    COMMAND ${CMAKE_COMMAND} -E make_directory doc
    COMMAND gzip -n9c ${PROJECT_SOURCE_DIR}/${source} > doc/${result}
    DEPENDS ${source} VERBATIM)
  add_custom_target(document-${result} DEPENDS doc/${result})
  add_dependencies(documents document-${result})
  install(FILES ${PROJECT_BINARY_DIR}/doc/${result} DESTINATION ${folder})
endfunction()

install(TARGETS kestrel RUNTIME)
install_compressed(doc/kestrel.1 kestrel.1.gz ${CMAKE_INSTALL_MANDIR}/man1)
if(KESTREL_RUN)
  install_compressed(doc/kestrel-run.1 kestrel-run.1.gz ${CMAKE_INSTALL_MANDIR}/man1)
endif()
if(KESTREL_PROBE)
  install_compressed(doc/kestrel-probe.1 kestrel-probe.1.gz ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES completion/kestrel-probe.bash RENAME kestrel-probe
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endif()
if(KESTREL_SOFTWARE_TOKEN)
  install_compressed(doc/kestrel-token.7 kestrel-token.7.gz ${CMAKE_INSTALL_MANDIR}/man7)
endif()
if(KESTREL_SHIM)
  install_compressed(doc/kestrel-shim.7 kestrel-shim.7.gz ${CMAKE_INSTALL_MANDIR}/man7)
endif()
install_compressed(doc/changelog.debian changelog.gz ${CMAKE_INSTALL_DOCDIR})
install(FILES doc/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "kestrel maintainers <maintainers@kestrel.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "conformance and diagnostics harness for PKCS#11 tokens")
set(CPACK_PACKAGE_DESCRIPTION "\
kestrel drives a smart card, a USB token or an HSM through its vendor's
PKCS#11 module, reports every call as passed or failed with its return
value, and checks with OpenSSL what the token computes. Reports of two
modules, or of two versions of one, can be compared line by line.")
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Folders get the umask of whoever packs, and cmake's own settings for them do not help.
file(CONFIGURE OUTPUT folders.cmake CONTENT [[
file(CHMOD_RECURSE ${CPACK_TEMPORARY_DIRECTORY} DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE
  OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
]] @ONLY)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_BINARY_DIR}/folders.cmake)

# Sources, and nothing that was built from them; wherever the checkout lies.
string(REGEX REPLACE "([][+.*()^$?|\\\\])" "\\\\\\1" checkout "${PROJECT_SOURCE_DIR}")
set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SOURCE_IGNORE_FILES "^${checkout}/(build[^/]*|demo|\\\\.git)(/|$)")
set(CPACK_SOURCE_PACKAGE_FILE_NAME ${PROJECT_NAME}-${PROJECT_VERSION})
include(CPack)
