# SPDX-License-Identifier: MIT
#
# cmake -DNM=... -DLIBRARY=... -P exported_names.cmake: the three entry points are functions, and no other function
# stands in the library's dynamic symbol table.
execute_process(COMMAND "${NM}" -D --defined-only --format=posix "${LIBRARY}" OUTPUT_VARIABLE symbols
                COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+ [TWi] [^\n]+" functions "${symbols}")
list(TRANSFORM functions REPLACE " .*" "")
list(SORT functions)
set(expected device_closeDB device_createDB device_getSupportList)
if(NOT functions STREQUAL expected)
    message(FATAL_ERROR "exported functions: ${functions}\nexpected: ${expected}")
endif()
