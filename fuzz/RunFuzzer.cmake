# Runs one libFuzzer target for a bounded time (CTest calls this through
# vel_add_fuzzer). The search grows its corpus, so it works on a fresh copy of
# the seeds in the build tree and leaves the source tree untouched; an input
# that fails is kept in the run's artifacts directory.
#
#   cmake -DFUZZER=exe -DCORPUS=seeds -DWORK=dir -DOPTIONS="-max_total_time=10 ..." -P RunFuzzer.cmake

foreach(var FUZZER CORPUS WORK)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "RunFuzzer.cmake: ${var} is not set")
  endif()
endforeach()

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/corpus ${WORK}/artifacts)
file(GLOB seeds ${CORPUS}/*)
if(NOT seeds)
  message(FATAL_ERROR "no seed inputs in ${CORPUS}")
endif()
file(COPY ${seeds} DESTINATION ${WORK}/corpus)

separate_arguments(options UNIX_COMMAND "${OPTIONS}")
execute_process(
  COMMAND ${FUZZER} ${options} -print_final_stats=1 -artifact_prefix=${WORK}/artifacts/
          ${WORK}/corpus
  WORKING_DIRECTORY ${WORK}
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  file(GLOB found ${WORK}/artifacts/*)
  message(FATAL_ERROR "${FUZZER} failed (${result}); failing inputs: ${found}")
endif()
