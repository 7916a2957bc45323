# Included by ctest after the discovered tests of every suite are known: gives each test
# whose name holds "Slow" the label slow.
get_cmake_property(variables VARIABLES)
foreach(variable ${variables})
    if(variable MATCHES "^tessel_.*_tests_TESTS$")
        foreach(test ${${variable}})
            if(test MATCHES "Slow")
                set_tests_properties("${test}" PROPERTIES LABELS slow)
            endif()
        endforeach()
    endif()
endforeach()
