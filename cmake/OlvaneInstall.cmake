# What `cmake --install` puts in place, and the Debian packages `cpack -G DEB`
# makes of it:
#   core         libolvane-core.so.<major>                  libolvane-core<major>
#   coredev      its headers, .so, olvane-core.pc, the CMake package OlvaneCore
#                                                           libolvane-core-dev
#   indexer      bin/olvane-indexer                         olvane-indexer
#   platform     the platform's libraries (log, common, codingdata, portolan,
#                mtp-utils), which a head unit's own platform replaces
#                                                           libolvane-platform<major>
#   platformdev  their headers, .so, .pc files and the CMake package
#                OlvanePlatform                             libolvane-platform-dev
# Headers keep their folders under include/olvane, so a host includes
# "facade/KestrowQTProxy.h" with include/olvane on its include path.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(OLVANE_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/olvane)
set(OLVANE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake)

# What a host includes, and every header these include.
set(OLVANE_CORE_PUBLIC_HEADERS
    facade/KestrowQTProxy.h
    orchestration/Kestrow.h
    mtp/MtpDevice.h
    framework/BaseServer.h
    framework/Block.h
    framework/KestrowOperation.h
    framework/Operation.h
    framework/OperationType.h
    framework/Runnable.h
    framework/Server.h
    db/Timer.h)
set(OLVANE_PLATFORM_PUBLIC_HEADERS
    platform/log/ZQLog.h
    platform/log/LogSink.h
    platform/log/LogCapture.h
    platform/common/DatabaseMgr.h
    platform/common/Md5.h
    platform/common/MetaDataInfo.h
    platform/common/StrippedValue.h
    platform/codingdata/CodingData.h
    platform/portolan/Portolan.h
    platform/portolan/Backend.h
    platform/portolan/DeviceTable.h
    platform/portolan/SimulatedDevice.h
    platform/mtputils/MtpUtils.h
    platform/mtputils/CTrackInfo.h)
set(OLVANE_PLATFORM_TARGETS olvane-log olvane-common olvane-codingdata portolan mtp-utils)

function(olvane_install_headers component)
    foreach(h ${ARGN})
        get_filename_component(dir ${h} DIRECTORY)
        install(FILES ${h} DESTINATION ${OLVANE_INCLUDE_DIR}/${dir} COMPONENT ${component})
    endforeach()
endfunction()

# A pkg-config file for one library. Its prefix is found from the file's own
# place, so a tree installed or unpacked under any prefix works as it lies.
function(olvane_pkg_config name description requires component)
    file(RELATIVE_PATH PC_UP ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
    string(REGEX REPLACE "/$" "" PC_UP "${PC_UP}")
    set(PC_NAME ${name})
    set(PC_DESCRIPTION ${description})
    set(PC_REQUIRES ${requires})
    list(TRANSFORM OLVANE_ABI_DEFINITIONS PREPEND " -D" OUTPUT_VARIABLE PC_CFLAGS)
    list(JOIN PC_CFLAGS "" PC_CFLAGS)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/olvane.pc.in ${CMAKE_BINARY_DIR}/pkgconfig/${name}.pc @ONLY)
    install(FILES ${CMAKE_BINARY_DIR}/pkgconfig/${name}.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT ${component})
endfunction()

# A CMake package: <name>Config.cmake, its version file and its targets.
function(olvane_cmake_package name component)
    configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/${name}Config.cmake.in
        ${CMAKE_BINARY_DIR}/cmake/${name}Config.cmake
        INSTALL_DESTINATION ${OLVANE_CMAKE_DIR}/${name})
    write_basic_package_version_file(${CMAKE_BINARY_DIR}/cmake/${name}ConfigVersion.cmake
        COMPATIBILITY SameMajorVersion)
    install(FILES ${CMAKE_BINARY_DIR}/cmake/${name}Config.cmake
                  ${CMAKE_BINARY_DIR}/cmake/${name}ConfigVersion.cmake
            DESTINATION ${OLVANE_CMAKE_DIR}/${name} COMPONENT ${component})
    install(EXPORT ${name}Targets NAMESPACE Olvane:: DESTINATION ${OLVANE_CMAKE_DIR}/${name}
            COMPONENT ${component})
endfunction()

# Users of every installed library find its headers under include/olvane and
# build with the same file offset and time sizes.
foreach(t ${OLVANE_PLATFORM_TARGETS} olvane-core)
    target_include_directories(${t} INTERFACE $<INSTALL_INTERFACE:${OLVANE_INCLUDE_DIR}>)
    target_compile_definitions(${t} INTERFACE "$<INSTALL_INTERFACE:${OLVANE_ABI_DEFINITIONS}>")
endforeach()

# The platform's libraries.
install(TARGETS ${OLVANE_PLATFORM_TARGETS} EXPORT OlvanePlatformTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT platform NAMELINK_COMPONENT platformdev)
olvane_install_headers(platformdev ${OLVANE_PLATFORM_PUBLIC_HEADERS})
olvane_pkg_config(olvane-log "Logging to the platform's DLT daemon" "" platformdev)
olvane_pkg_config(olvane-common "Device databases, status records and ids"
                  "olvane-log" platformdev)
olvane_pkg_config(olvane-codingdata "Character-set guessing of tag texts"
                  "olvane-log" platformdev)
olvane_pkg_config(portolan "Device access, answered by a simulated MTP device" ""
                  platformdev)
olvane_pkg_config(mtp-utils "Paths, ids and metadata of MTP objects"
                  "portolan olvane-common" platformdev)
olvane_cmake_package(OlvanePlatform platformdev)

# The core library. Its installed headers need QtCore, Boost's shared_ptr,
# pthreads and the logging header; nothing else crosses to its users.
target_link_libraries(olvane-core INTERFACE olvane-log Qt6::Core Boost::headers Threads::Threads)
install(TARGETS olvane-core EXPORT OlvaneCoreTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT core NAMELINK_COMPONENT coredev)
olvane_install_headers(coredev ${OLVANE_CORE_PUBLIC_HEADERS})
olvane_pkg_config(olvane-core "Media indexer of the head unit" "Qt6Core olvane-log"
                  coredev)
olvane_cmake_package(OlvaneCore coredev)

install(TARGETS olvane-indexer RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT indexer)

# Debian packages, one per component.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME olvane)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Olvane head-unit team <olvane@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL core coredev indexer platform platformdev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

set(CPACK_DEBIAN_CORE_PACKAGE_NAME libolvane-core${PROJECT_VERSION_MAJOR})
set(CPACK_COMPONENT_CORE_DESCRIPTION "Media indexer of the head unit (library)")
set(CPACK_COMPONENT_CORE_DEPENDS platform)

set(CPACK_DEBIAN_COREDEV_PACKAGE_NAME libolvane-core-dev)
set(CPACK_DEBIAN_COREDEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_COREDEV_DESCRIPTION "Media indexer of the head unit (headers, pkg-config and CMake files)")
set(CPACK_COMPONENT_COREDEV_DEPENDS core platformdev)
set(CPACK_DEBIAN_COREDEV_PACKAGE_DEPENDS "qt6-base-dev, libboost-dev")

set(CPACK_DEBIAN_INDEXER_PACKAGE_NAME olvane-indexer)
set(CPACK_DEBIAN_INDEXER_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_INDEXER_DESCRIPTION "Indexes music folders from a shell with libolvane-core")
set(CPACK_COMPONENT_INDEXER_DEPENDS core platform)

set(CPACK_DEBIAN_PLATFORM_PACKAGE_NAME libolvane-platform${PROJECT_VERSION_MAJOR})
set(CPACK_COMPONENT_PLATFORM_DESCRIPTION
    "Stand-ins for the head unit's platform libraries: logging, databases, code pages, device access")

set(CPACK_DEBIAN_PLATFORMDEV_PACKAGE_NAME libolvane-platform-dev)
set(CPACK_DEBIAN_PLATFORMDEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_PLATFORMDEV_DESCRIPTION "Stand-ins for the head unit's platform libraries (headers, pkg-config and CMake files)")
set(CPACK_COMPONENT_PLATFORMDEV_DEPENDS platform)
set(CPACK_DEBIAN_PLATFORMDEV_PACKAGE_DEPENDS "libdlt-dev")
include(CPack)
