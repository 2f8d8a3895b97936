# The packages, by CPack from the installed layout: a Debian package on Linux,
# a zip on Windows, a tarball and an RPM from the portable (static) build. All
# carry the version of the top CMakeLists.txt.
set(CPACK_PACKAGE_NAME velextracta)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "The VelExtracta developers")
set(CPACK_PACKAGE_CONTACT "The VelExtracta developers <velextracta@users.noreply.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "extracts text views of package designs through extracta")
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_STRIP_FILES ON)

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME VelExtracta-${PROJECT_VERSION}-win64)
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
elseif(VEL_STATIC)
  # The tarball unpacks to one folder (bin/, share/) usable where it lies; the
  # RPM installs the same files under /usr. The prefix differs per generator,
  # so it is set when CPack runs (cmake/PackagingStatic.cmake).
  set(CPACK_GENERATOR TGZ RPM)
  set(CPACK_PACKAGE_FILE_NAME velextracta-${PROJECT_VERSION}-linux-x86_64)
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
  set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/PackagingStatic.cmake)
  set(CPACK_RPM_PACKAGE_RELEASE 1)
  set(CPACK_RPM_FILE_NAME velextracta-${PROJECT_VERSION}-1.x86_64.rpm)
  set(CPACK_RPM_PACKAGE_ARCHITECTURE x86_64)
  set(CPACK_RPM_PACKAGE_LICENSE MIT)
  set(CPACK_RPM_PACKAGE_GROUP "Applications/Engineering")
  set(CPACK_RPM_PACKAGE_SUMMARY "Extracts text views of package designs through extracta")
  set(CPACK_RPM_PACKAGE_VENDOR ${CPACK_PACKAGE_VENDOR})
  set(CPACK_RPM_SPEC_MORE_DEFINE "%define packager ${CPACK_PACKAGE_CONTACT}")
  set(CPACK_RPM_PACKAGE_DESCRIPTION
      "VelExtracta turns a package-substrate design into plain-text views by
running the layout system's extraction tool extracta, several processes side
by side, and packs them into one zip archive. The package also holds
extracta-sim, a stand-in for extracta, and make-design, which writes sample
designs for it. The programs are linked statically: they need no library.")
  configure_file(${PROJECT_SOURCE_DIR}/packaging/rpm/changelog.in ${CMAKE_BINARY_DIR}/rpm/changelog
                 @ONLY)
  set(CPACK_RPM_CHANGELOG_FILE ${CMAKE_BINARY_DIR}/rpm/changelog)
  # Linked statically: nothing to require, nothing to provide.
  set(CPACK_RPM_PACKAGE_AUTOREQPROV OFF)
  # Directories the system's own packages own.
  set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION /usr/share/man /usr/share/man/man1)
  set(CPACK_RPM_DEFAULT_DIR_PERMISSIONS
      OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS ${CPACK_RPM_DEFAULT_DIR_PERMISSIONS})
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)  # velextracta_<version>_<arch>.deb
  set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
  set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
  # Runtime libraries only, as dpkg-shlibdeps finds them from the binaries.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # The extended description, below the summary line.
  set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
      "VelExtracta turns a package-substrate design into plain-text views (layer
stack-up, pads, geometry, connectivity, nets, components, outline, die stacks,
composite pads, logical pins) by running the layout system's extraction tool
extracta, several processes side by side, and packs them into one zip archive.
The package also holds extracta-sim, a stand-in for extracta, and make-design,
which writes sample designs for it.")
  # Directories CPack creates itself get these, whatever the umask.
  set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
      OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endif()

include(CPack)
