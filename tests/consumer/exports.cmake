# A shared library shows its own public names and nothing else. Nor does a static one define a name
# that could be a consumer's, but for what both have of the same templates.
set(names_of -D)
set(kind "[A-Za-z]")
if(LIBRARY MATCHES "\\.a$")
  set(names_of --extern-only)
  set(kind "[A-TX-Z]") # not weak
endif()
execute_process(COMMAND ${NM} -C ${names_of} --defined-only --quiet ${LIBRARY}
  OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[0-9a-f]+ ${kind} [^\n]+" names "${output}")
list(FILTER names EXCLUDE REGEX "^[0-9a-f]+ . (ravelin_|((typeinfo|typeinfo name|vtable) for \
|non-virtual thunk to )?ravelin::)")
if(names OR NOT output)
  message(FATAL_ERROR "${LIBRARY} shows ${names}")
endif()
