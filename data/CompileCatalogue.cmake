# Compiles one message catalogue: cmake -DSOURCE=NAME.msg -DOUTPUT=NAME.cat -DCODESET=... -DGENCAT=... -DICONV=... -P
# The sources are UTF-8, so that everyone can read them; the texts of a catalogue are in the codeset of its locale. A
# character that the codeset lacks is an error. The catalogue appears whole or not at all.
get_filename_component(folder ${OUTPUT} DIRECTORY)
file(MAKE_DIRECTORY ${folder})

file(READ ${SOURCE} text)
if(NOT text MATCHES "^\\$ codeset=UTF-8\n")
  message(FATAL_ERROR "${SOURCE}: the first line must be \"$ codeset=UTF-8\"")
endif()
string(REGEX REPLACE "^\\$ codeset=UTF-8" "$ codeset=${CODESET}" text "${text}")
file(WRITE ${OUTPUT}.utf8 "${text}")

file(REMOVE ${OUTPUT} ${OUTPUT}.new)
execute_process(COMMAND ${ICONV} -f UTF-8 -t ${CODESET} ${OUTPUT}.utf8 OUTPUT_FILE ${OUTPUT}.msg RESULT_VARIABLE converted)
if(converted EQUAL 0)
  execute_process(COMMAND ${GENCAT} ${OUTPUT}.new ${OUTPUT}.msg RESULT_VARIABLE compiled ERROR_VARIABLE complaints)
endif()
file(REMOVE ${OUTPUT}.utf8 ${OUTPUT}.msg)
if(NOT converted EQUAL 0 OR NOT compiled EQUAL 0 OR complaints)
  file(REMOVE ${OUTPUT}.new)
  message(FATAL_ERROR "${SOURCE}: not a message catalogue in ${CODESET}: ${complaints}")
endif()
file(RENAME ${OUTPUT}.new ${OUTPUT})
