# Lets the example host change a word of a copy of the example package; nothing else may differ then.
file(MAKE_DIRECTORY "${FOLDER}")
configure_file("${PACKAGE}" "${FOLDER}/report.docx.txt" COPYONLY)
execute_process(COMMAND "${HOST}" "${FOLDER}/report.docx.txt" /word/document.xml "lazy dog" "lazy cat"
                        COMMAND_ERROR_IS_FATAL ANY)

file(READ "${PACKAGE}" expected)
string(REPLACE "lazy dog" "lazy cat" expected "${expected}")
file(READ "${FOLDER}/report.docx.txt" actual)
if(NOT actual STREQUAL expected)
  message(FATAL_ERROR "have:\n${actual}\nwant:\n${expected}")
endif()

execute_process(
  COMMAND "${HOST}" "${FOLDER}/report.docx.txt" /word/document.xml "no such text" ""
  RESULT_VARIABLE status
  ERROR_QUIET)
if(status EQUAL 0)
  message(FATAL_ERROR "a text that isn't there was replaced")
endif()
