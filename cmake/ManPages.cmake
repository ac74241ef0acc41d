# Writes the man pages of zarn-media from its own --help texts, with help2man:
# zarn-media.1.gz from the main help and zarn-media-COMMAND.1.gz from each command's,
# for every command the main help lists (so a new command gets its page without
# touching this file). Run as a script:
#   cmake -DTOOL=path/to/zarn-media -DHELP2MAN=... -DVERSION=x.y.z -DOUT=dir -P ManPages.cmake
# Every page is written before OUT/stamp, so a failed run is redone by the next build.
foreach(var TOOL HELP2MAN VERSION OUT)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "ManPages.cmake: ${var} is not set")
  endif()
endforeach()

execute_process(COMMAND ${TOOL} --help OUTPUT_VARIABLE help RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${TOOL} --help failed (${rc})")
endif()

# The command table: "  NAME   what it does" lines between "commands:" and the next blank line.
string(REPLACE "\n" ";" lines "${help}")
set(commands)
set(in_table OFF)
foreach(line IN LISTS lines)
  if(line STREQUAL "commands:")
    set(in_table ON)
  elseif(in_table AND line STREQUAL "")
    set(in_table OFF)
  elseif(in_table AND line MATCHES "^  ([a-z][a-z0-9-]*)  +(.*)$")
    list(APPEND commands ${CMAKE_MATCH_1})
    set(summary_${CMAKE_MATCH_1} "${CMAKE_MATCH_2}")
  endif()
endforeach()
if(NOT commands)
  message(FATAL_ERROR "no command table in `${TOOL} --help`")
endif()

file(REMOVE_RECURSE ${OUT})
file(MAKE_DIRECTORY ${OUT})
set(see_also)
foreach(command IN LISTS commands)
  list(APPEND see_also "\\fBzarn-media-${command}\\fR(1)")
endforeach()
list(JOIN see_also ",\n" see_also)
file(WRITE ${OUT}/main.h2m "[SEE ALSO]\n${see_also}\n")
file(WRITE ${OUT}/command.h2m "[SEE ALSO]\n\\fBzarn-media\\fR(1)\n")

function(run_help2man page name include)
  execute_process(COMMAND ${HELP2MAN} --no-info --section=1 --version-string=${VERSION} --name=${name}
                          --include=${include} --output=${OUT}/${page}.1 ${ARGN} ${TOOL}
                  RESULT_VARIABLE rc ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "help2man failed for ${page}: ${err}")
  endif()
endfunction()

run_help2man(zarn-media "record, query, export and inspect video in a Zarn store" ${OUT}/main.h2m)
foreach(command IN LISTS commands)
  run_help2man(zarn-media-${command} "${summary_${command}}" ${OUT}/command.h2m "--help-option=${command} --help")
  # help2man names a page after the program; a command's page is named after the command.
  set(page ${OUT}/zarn-media-${command}.1)
  file(READ ${page} text)
  string(TOUPPER ${command} upper)
  string(REPLACE ".TH ZARN-MEDIA " ".TH ZARN-MEDIA-${upper} " text "${text}")
  string(REPLACE "\nzarn-media \\- " "\nzarn-media-${command} \\- " text "${text}")
  file(WRITE ${page} "${text}")
endforeach()
file(REMOVE ${OUT}/main.h2m ${OUT}/command.h2m)
# Compressed as Debian installs man pages; -n leaves the time out, so that
# rebuilding gives the same bytes.
file(GLOB pages ${OUT}/*.1)
execute_process(COMMAND gzip -9nf ${pages} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "gzip of the man pages failed (${rc})")
endif()
file(TOUCH ${OUT}/stamp)
