# Writes a manual page from a program's own --help text, so the page says
# what the program says. Run as
#   cmake -DPROGRAM=... -DNAME=... -DSECTION=... -DSUMMARY=... -DVERSION=... -DOUT=... -P sflManPage.cmake
execute_process(COMMAND "${PROGRAM}" --help OUTPUT_VARIABLE _help ERROR_VARIABLE _err
                RESULT_VARIABLE _rc)
if(NOT _rc EQUAL 0 OR _help STREQUAL "")
  message(FATAL_ERROR "${PROGRAM} --help failed (${_rc}): ${_err}")
endif()
# roff: a backslash is written \e; a line starting with . or ' is guarded.
string(REPLACE "\\" "\\e" _help "${_help}")
string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" _help "${_help}")
string(TOUPPER "${NAME}" _title)
file(WRITE "${OUT}" ".TH ${_title} ${SECTION} \"\" \"sfl ${VERSION}\"
.SH NAME
${NAME} \\- ${SUMMARY}
.SH DESCRIPTION
.nf
${_help}.fi
")
