find_package(GTest REQUIRED)

# Registers one GoogleTest file as one test executable, named after the file.
function(olvane_add_test file)
    get_filename_component(name ${file} NAME_WE)
    add_executable(${name} ${file} ${ARGN})
    target_link_libraries(${name} PRIVATE olvane-core olvane-testsupport GTest::gtest GTest::gmock)
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES
        ENVIRONMENT "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/scripts/lsan.supp:print_suppressions=0:fast_unwind_on_malloc=0"
        TIMEOUT 300)
    if(name IN_LIST OLVANE_CONCURRENCY_TESTS)
        add_dependencies(concurrency-tests ${name})
        set_property(TEST ${name} APPEND PROPERTY LABELS concurrency)
        # die_after_fork=0: tests start programs (cp, setpriv) from a process
        # with threads; the child only execs.
        set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT
            "TSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/scripts/tsan.supp:halt_on_error=1:second_deadlock_stack=1:die_after_fork=0")
    endif()
endfunction()

# Every *Test.cpp of the calling folder.
function(olvane_add_tests_here)
    file(GLOB files CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*Test.cpp)
    foreach(f ${files})
        olvane_add_test(${f})
    endforeach()
endfunction()
