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

# The object libraries are the build's own: the installed library exports
# none of them (see cmake/OlvaneInstall.cmake for what it does export).
function(olvane_core_library)
    get_property(modules GLOBAL PROPERTY OLVANE_CORE_MODULES)
    add_library(olvane-core SHARED)
    foreach(m ${modules})
        target_sources(olvane-core PRIVATE $<TARGET_OBJECTS:${m}>)
        target_link_libraries(olvane-core PUBLIC $<BUILD_INTERFACE:${m}>)
    endforeach()
    olvane_versioned(olvane-core core)
endfunction()

# A library of the platform: a shared library of its own, libolvane-<name>.
function(olvane_platform_library name)
    file(GLOB srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
    file(GLOB hdrs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    add_library(olvane-${name} SHARED ${srcs} ${hdrs})
    target_include_directories(olvane-${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
    olvane_link_public(olvane-${name} ${ARGN})
    olvane_versioned(olvane-${name} ${name})
endfunction()

# Links `target` to `deps` for it and its users in the build. Found packages
# (imported targets) stay out of the installed link interface: the installed
# headers need none of them, and a user then needs none of their -dev files.
function(olvane_link_public target)
    foreach(dep ${ARGN})
        set(imported FALSE)
        if(TARGET ${dep})
            get_target_property(imported ${dep} IMPORTED)
        endif()
        if(imported)
            target_link_libraries(${target} PUBLIC $<BUILD_INTERFACE:${dep}>)
        else()
            target_link_libraries(${target} PUBLIC ${dep})
        endif()
    endforeach()
endfunction()

# SONAME libX.so.<major>, and the name of the target in the installed
# package (Olvane::<export_name>).
function(olvane_versioned target export_name)
    set_target_properties(${target} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        EXPORT_NAME ${export_name})
endfunction()
