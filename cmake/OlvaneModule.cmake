# One folder of the system is one object library (its *.cpp and *.h; a folder
# with no source yet adds nothing); olvane_core_library() links
# all of them into the shared library libolvane-core.
function(olvane_core_module name)
    file(GLOB srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
    file(GLOB hdrs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    if(NOT srcs)
        return()
    endif()
    add_library(${name} OBJECT ${srcs} ${hdrs})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
    target_link_libraries(${name} PUBLIC ${ARGN})
    set_property(GLOBAL APPEND PROPERTY OLVANE_CORE_MODULES ${name})
endfunction()

function(olvane_core_library)
    get_property(modules GLOBAL PROPERTY OLVANE_CORE_MODULES)
    add_library(olvane-core SHARED)
    foreach(m ${modules})
        target_sources(olvane-core PRIVATE $<TARGET_OBJECTS:${m}>)
        target_link_libraries(olvane-core PUBLIC $<BUILD_INTERFACE:${m}>)
    endforeach()
endfunction()

# A library of the platform: a shared library of its own, libolvane-<name>.
function(olvane_platform_library name)
    file(GLOB srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
    file(GLOB hdrs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    add_library(olvane-${name} SHARED ${srcs} ${hdrs})
    target_include_directories(olvane-${name} PUBLIC ${PROJECT_SOURCE_DIR})
    target_link_libraries(olvane-${name} PUBLIC ${ARGN})
endfunction()
