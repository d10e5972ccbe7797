# SPDX-License-Identifier: MIT
#
# cmake -DNM=... -DLIBRARY=... -P exported_names.cmake: the three entry points, as functions, are all that the library's
# dynamic symbol table defines.
execute_process(COMMAND "${NM}" -D --defined-only --format=posix "${LIBRARY}" OUTPUT_VARIABLE symbols
                COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+ [A-Za-z] [^\n]+" names "${symbols}")
list(TRANSFORM names REPLACE "^([^ ]+) ([^ ]+) .*" "\\1 \\2")
list(SORT names)
set(expected "device_closeDB T" "device_createDB T" "device_getSupportList T")
if(NOT names STREQUAL expected)
    message(FATAL_ERROR "exported names: ${names}\nexpected: ${expected}")
endif()
