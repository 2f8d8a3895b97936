# Installs the build tree into an empty prefix and compares the files there
# with the layout a user and the Debian package rely on.
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX}
                RESULT_VARIABLE result OUTPUT_QUIET)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "cmake --install failed: ${result}")
endif()

set(expected
    bin/VelExtracta bin/extracta-sim bin/make-design
    share/doc/velextracta/LICENSE share/doc/velextracta/README.md
    share/doc/velextracta/README.tools.md share/doc/velextracta/changelog.gz
    share/doc/velextracta/copyright
    share/man/man1/VelExtracta.1.gz share/man/man1/extracta-sim.1.gz
    share/man/man1/make-design.1.gz)
file(GLOB_RECURSE installed RELATIVE ${PREFIX} ${PREFIX}/*)
list(SORT installed)
list(SORT expected)
if(NOT installed STREQUAL expected)
  message(FATAL_ERROR "installed:\n  ${installed}\nexpected:\n  ${expected}")
endif()

# The installed program runs: it tells its version, and with too few
# arguments it ends with 1 and the usage line.
execute_process(COMMAND ${PREFIX}/bin/VelExtracta --version RESULT_VARIABLE result
                OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT result EQUAL 0 OR NOT out MATCHES "^VelExtracta [0-9]+\\.[0-9]+\\.[0-9]+\n$")
  message(FATAL_ERROR "installed VelExtracta --version: exit ${result}, out '${out}'")
endif()
execute_process(COMMAND ${PREFIX}/bin/VelExtracta RESULT_VARIABLE result OUTPUT_VARIABLE out
                ERROR_VARIABLE err)
if(NOT result EQUAL 1 OR NOT out STREQUAL "" OR NOT err MATCHES "^usage: VelExtracta ")
  message(FATAL_ERROR "installed VelExtracta: exit ${result}, out '${out}', err '${err}'")
endif()
