# discover.cmake: ctest includes it before it lists or runs tests. It adds each test of a program as a case of its own.
#
# program: its path; prefix: of the names; launcher: the command that runs it, or empty; properties: of each case.
# Listing the tests needs no launcher.
if(NOT EXISTS "${program}")
    add_test(${prefix}_NOT_BUILT ${prefix}_NOT_BUILT)
    return()
endif()
execute_process(COMMAND "${program}" --gtest_list_tests OUTPUT_VARIABLE lines COMMAND_ERROR_IS_FATAL ANY)
string(REPLACE "\n" ";" lines "${lines}")
foreach(line IN LISTS lines)
    if(line MATCHES "^  (.*)")
        set(case "${suite}${CMAKE_MATCH_1}")
        add_test("${prefix}.${case}" ${launcher} "${program}" "--gtest_filter=${case}")
        set_tests_properties("${prefix}.${case}" PROPERTIES SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]" ${properties})
    else()
        set(suite "${line}")
    endif()
endforeach()
