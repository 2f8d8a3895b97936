# Read by CPack for each generator of the portable build: the RPM installs
# under /usr, the tarball's folder holds bin/ and share/ at its top.
if(CPACK_GENERATOR STREQUAL "RPM")
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
else()
  set(CPACK_PACKAGING_INSTALL_PREFIX "")
  set(CPACK_SET_DESTDIR OFF)
endif()
