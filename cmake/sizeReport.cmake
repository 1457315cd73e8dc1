# Prints the stripped sizes of the library and the plug-in, as a device would carry them, and
# fails when together they exceed the budget.
#   cmake -DSTRIP=<strip> -DNM=<nm> -DLIBRARY=<file> -DPLUGIN=<file> -DBUDGET=<bytes> -DWORK=<dir>
#         -P sizeReport.cmake
file(MAKE_DIRECTORY ${WORK})
set(total 0)
message("stripped sizes:")
foreach(binary ${LIBRARY} ${PLUGIN})
    get_filename_component(name ${binary} NAME)
    execute_process(COMMAND ${STRIP} --strip-all -o ${WORK}/${name} ${binary}
        COMMAND_ERROR_IS_FATAL ANY)
    file(SIZE ${WORK}/${name} size)
    execute_process(COMMAND ${NM} -D --defined-only ${WORK}/${name}
        OUTPUT_VARIABLE exports COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX MATCHALL "\n" lines "\n${exports}")
    list(LENGTH lines count)
    math(EXPR count "${count} - 1")
    string(LENGTH "${name}" width)
    math(EXPR width "24 - ${width}")
    string(REPEAT " " ${width} pad)
    message("  ${name}${pad}${size} bytes, ${count} exported symbols")
    math(EXPR total "${total} + ${size}")
endforeach()
message("  together                ${total} bytes of ${BUDGET}")
if(total GREATER BUDGET)
    message(FATAL_ERROR "the library and the plug-in exceed their size budget")
endif()
