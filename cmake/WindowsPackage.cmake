# The Windows zip: the three programs at the top of one folder with the
# README, the project's licence and the licences of everything linked into
# them (gathered by scripts/build-windows into VEL_WINDOWS_DEPS/licences).
install(TARGETS VelExtracta extracta-sim make-design RUNTIME DESTINATION .)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION .)
if(VEL_WINDOWS_DEPS AND IS_DIRECTORY ${VEL_WINDOWS_DEPS}/licences)
  install(DIRECTORY ${VEL_WINDOWS_DEPS}/licences/ DESTINATION licences)
endif()

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_NAME VelExtracta)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_FILE_NAME VelExtracta-${PROJECT_VERSION}-win64)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
include(CPack)
