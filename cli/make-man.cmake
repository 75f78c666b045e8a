# Writes the manual page from the tool's --help text (cmake -P).
execute_process(COMMAND ${TOOL} --help OUTPUT_VARIABLE text RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${TOOL} --help failed")
endif()
string(REPLACE "\\" "\\e" text "${text}")
string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" text "${text}")
file(WRITE ${OUT} ".TH TWN4 1 \"\" \"twn4 ${VERSION}\" \"User Commands\"\n.nf\n${text}")
