# Copies src/ into SCRATCH_DIR, writes PLANTED_FILE there with an include of
# PLANTED_INCLUDE on line 4, runs the include check on the copy and passes only
# when the check fails with EXPECTED in its output.
file(REMOVE_RECURSE ${SCRATCH_DIR})
file(COPY ${KERROW_SOURCE_DIR}/src DESTINATION ${SCRATCH_DIR})
file(WRITE ${SCRATCH_DIR}/${PLANTED_FILE}
     "// A file that breaks the layers on purpose.\n\n#include <string>\n#include \"${PLANTED_INCLUDE}\"\n")

execute_process(
  COMMAND ${CMAKE_COMMAND} -DKERROW_SOURCE_DIR=${SCRATCH_DIR}
          -P ${KERROW_SOURCE_DIR}/cmake/CheckIncludeLayers.cmake
  RESULT_VARIABLE status
  OUTPUT_VARIABLE output
  ERROR_VARIABLE output)
file(REMOVE_RECURSE ${SCRATCH_DIR})

if(status EQUAL 0)
  message(FATAL_ERROR "the include check passed a tree with ${PLANTED_FILE} including ${PLANTED_INCLUDE}:\n${output}")
endif()
string(FIND "${output}" "${EXPECTED}" found)
if(found LESS 0)
  message(FATAL_ERROR "the include check failed without saying \"${EXPECTED}\":\n${output}")
endif()
