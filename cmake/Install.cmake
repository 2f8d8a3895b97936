# The installed layout: the program and its two stand-in tools in bin/, the
# READMEs and the licence in the documentation directory, a manual page for
# each program. Test and benchmark programs are never installed: only the rules
# here install anything, and GoogleTest and Google Benchmark come from the
# system, not from subprojects with install rules of their own.
include(GNUInstallDirs)

if(WIN32)
  # The Windows zip: the three programs at the top of one folder with the
  # README, the project's licence and the licences of everything linked into
  # them (gathered by scripts/build-windows into VEL_WINDOWS_DEPS/licences).
  set(VEL_BIN_DIR .)
  set(VEL_DOC_DIR .)
  if(VEL_WINDOWS_DEPS AND IS_DIRECTORY ${VEL_WINDOWS_DEPS}/licences)
    install(DIRECTORY ${VEL_WINDOWS_DEPS}/licences/ DESTINATION licences)
  endif()
else()
  set(VEL_BIN_DIR ${CMAKE_INSTALL_BINDIR})
  set(VEL_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/velextracta)
  # The portable release (tarball, RPM) carries the licences of everything
  # linked into its programs, gathered by scripts/build-static.
  if(VEL_STATIC AND VEL_STATIC_DEPS AND IS_DIRECTORY ${VEL_STATIC_DEPS}/licences)
    install(DIRECTORY ${VEL_STATIC_DEPS}/licences/ DESTINATION ${VEL_DOC_DIR}/licences)
  endif()
endif()
install(TARGETS VelExtracta extracta-sim make-design RUNTIME DESTINATION ${VEL_BIN_DIR})
install(FILES README.md LICENSE DESTINATION ${VEL_DOC_DIR})
install(FILES tools/README.md DESTINATION ${VEL_DOC_DIR} RENAME README.tools.md)

if(NOT WIN32)
  # Manual pages and the Debian changelog go in compressed, as Debian wants
  # them: gzip -9n, so the bytes do not depend on a file's name or time.
  find_program(VEL_GZIP gzip REQUIRED)
  function(vel_gzip source output)
    add_custom_command(
      OUTPUT ${output}
      COMMAND ${CMAKE_COMMAND} -E copy ${source} ${output}.tmp
      COMMAND ${VEL_GZIP} -9nf ${output}.tmp
      COMMAND ${CMAKE_COMMAND} -E rename ${output}.tmp.gz ${output}
      DEPENDS ${source}
      VERBATIM)
  endfunction()

  set(vel_compressed)
  foreach(program VelExtracta extracta-sim make-design)
    set(page ${CMAKE_BINARY_DIR}/man/${program}.1.gz)
    vel_gzip(${PROJECT_SOURCE_DIR}/docs/man/${program}.1 ${page})
    list(APPEND vel_compressed ${page})
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  endforeach()

  # The Debian copyright file: the licence, in the machine-readable format.
  # Debian's own files stay out of the portable release.
  file(STRINGS LICENSE vel_licence_lines)
  list(SUBLIST vel_licence_lines 4 -1 vel_licence_body)  # after the title and notice
  set(VEL_LICENCE_TEXT)
  foreach(line IN LISTS vel_licence_body)
    if(line STREQUAL "")
      string(APPEND VEL_LICENCE_TEXT " .\n")
    else()
      string(APPEND VEL_LICENCE_TEXT " ${line}\n")
    endif()
  endforeach()
  configure_file(cmake/debian/copyright.in ${CMAKE_BINARY_DIR}/debian/copyright @ONLY)
  configure_file(cmake/debian/changelog.in ${CMAKE_BINARY_DIR}/debian/changelog @ONLY)
  vel_gzip(${CMAKE_BINARY_DIR}/debian/changelog ${CMAKE_BINARY_DIR}/debian/changelog.gz)
  list(APPEND vel_compressed ${CMAKE_BINARY_DIR}/debian/changelog.gz)
  if(NOT VEL_STATIC)
    install(FILES ${CMAKE_BINARY_DIR}/debian/copyright ${CMAKE_BINARY_DIR}/debian/changelog.gz
            DESTINATION ${VEL_DOC_DIR})
  endif()

  add_custom_target(vel_compressed_docs ALL DEPENDS ${vel_compressed})
endif()
