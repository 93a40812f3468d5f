# Installation and the Debian package: `cmake --install build [--prefix P]`
# and `cpack -G DEB` in build/. Included at the end of the top-level
# CMakeLists.txt, so every target exists here.
include(GNUInstallDirs)

# The programs a user runs; a new one is one more word here.
set(TSE_INSTALLED_PROGRAMS signature-verification tse-check)

target_compile_definitions(tse-check PRIVATE TSE_CHECK_VERSION="${PROJECT_VERSION}")

install(TARGETS ${TSE_INSTALLED_PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Man pages are kept as hand-written roff in man/ and installed compressed,
# as Debian does; without gzip they go in as they are.
file(GLOB TSE_MAN_PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/*.1)
find_program(GZIP_PROGRAM gzip)
set(TSE_INSTALLED_MAN_PAGES)
foreach(page IN LISTS TSE_MAN_PAGES)
  get_filename_component(name ${page} NAME)
  if(GZIP_PROGRAM)
    set(compressed ${PROJECT_BINARY_DIR}/man/${name}.gz)
    add_custom_command(OUTPUT ${compressed}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
      COMMAND ${GZIP_PROGRAM} -9 -n -c ${page} > ${compressed}
      DEPENDS ${page}
      COMMENT "Compressing man page ${name}"
      VERBATIM)
    list(APPEND TSE_INSTALLED_MAN_PAGES ${compressed})
  else()
    list(APPEND TSE_INSTALLED_MAN_PAGES ${page})
  endif()
endforeach()
add_custom_target(man-pages ALL DEPENDS ${TSE_INSTALLED_MAN_PAGES})
install(FILES ${TSE_INSTALLED_MAN_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# bash-completion loads a completion on first use by the command's name.
install(FILES ${PROJECT_SOURCE_DIR}/completion/tse-check.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME tse-check)

set(CPACK_PACKAGE_NAME tse-signature-verification)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "TSE signature verification developers <tse-signature-verification@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "check the signatures of German fiscal security devices (TSE)")
set(CPACK_PACKAGE_DESCRIPTION
    "signature-verification checks the ECDSA signature that a TSE puts on a transaction, from an exported log message and the TSE's certificate or from the text of a receipt QR code. tse-check reads and verifies log messages of every type, curve and hash; audits whole TSE exports (signatures, certificates and their chains, counters, times) with reports as text, JSON, CSV and HTML; checks DSFinV-K bookkeeping exports against their signatures and the TSE export; prints the receipt QR code text for a log; and verifies receipts given as text or read from photos, scans and PDFs, explaining why one fails.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

# dpkg-shlibdeps (from dpkg-dev) names the exact packages and versions of
# the libraries the programs link. Without it the list is made from the
# packages recorded where this build found each library (tse_runtime_package
# in core/CMakeLists.txt, libssl3 beside OpenSSL). Both lists go into the
# CPack configuration; cmake/DebianDepends.cmake picks one when cpack runs,
# so `cpack -D CPACK_DEBIAN_PACKAGE_SHLIBDEPS=OFF` shows the fallback.
find_program(DPKG_SHLIBDEPS_PROGRAM dpkg-shlibdeps)
get_property(tse_runtime_packages GLOBAL PROPERTY TSE_RUNTIME_PACKAGES)
list(REMOVE_DUPLICATES tse_runtime_packages)
list(JOIN tse_runtime_packages ", " tse_runtime_depends)
set(CPACK_TSE_FALLBACK_DEPENDS "libc6, libstdc++6, ${tse_runtime_depends}")
if(DPKG_SHLIBDEPS_PROGRAM)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
endif()
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/DebianDepends.cmake)

include(CPack)
