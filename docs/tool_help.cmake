# Writes the --help text of TOOL to OUT; a tool that fails or prints nothing fails the docs build.
execute_process(COMMAND ${TOOL} --help OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
string(APPEND out "${err}")
if(NOT rc EQUAL 0 OR out STREQUAL "")
  message(FATAL_ERROR "${TOOL} --help failed (${rc})")
endif()
file(WRITE ${OUT} "${out}")
