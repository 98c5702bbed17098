# A shared library shows its own public names and nothing else.
execute_process(COMMAND ${NM} -DC --defined-only ${LIBRARY}
  OUTPUT_VARIABLE names COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE "\n$" "" names "${names}")
string(REPLACE "\n" ";" names "${names}")
list(FILTER names EXCLUDE REGEX
  "^[0-9a-f]+ . (ravelin_|((typeinfo|typeinfo name|vtable) for )?ravelin::)")
if(names)
  message(FATAL_ERROR "${LIBRARY} shows ${names}")
endif()
