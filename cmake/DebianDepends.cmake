# Read by cpack for each generator (CPACK_PROJECT_CONFIG_FILE): without
# dpkg-shlibdeps the package depends on the libraries this build found.
if(NOT CPACK_DEBIAN_PACKAGE_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "${CPACK_TSE_FALLBACK_DEPENDS}")
endif()
