# What `cmake --install` lays down: headers, both libraries, iosched.pc, the CMake package, arenactl
# and the man pages. Three components, packaged one by one: "runtime", "development" and "tools".
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/iosched)

set_target_properties(iosched_shared PROPERTIES EXPORT_NAME iosched)
install(TARGETS iosched_shared EXPORT iosched-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT runtime NAMELINK_COMPONENT development)
install(TARGETS iosched_static EXPORT iosched-targets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY include/iosched DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT development FILES_MATCHING PATTERN "*.h")

# Relative to the place of the .pc file, so that the tree may be moved as a whole.
file(RELATIVE_PATH IOSCHED_PC_PREFIX
    /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" IOSCHED_PC_PREFIX "${IOSCHED_PC_PREFIX}")
configure_file(cmake/iosched.pc.in iosched.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/iosched.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

configure_package_config_file(cmake/iosched-config.cmake.in iosched-config.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(iosched-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/iosched-config.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/iosched-config-version.cmake
    DESTINATION ${package_dir} COMPONENT development)
install(EXPORT iosched-targets NAMESPACE iosched:: DESTINATION ${package_dir}
    COMPONENT development)

if(TARGET arenactl)
    install(TARGETS arenactl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()

# docs/man/NAME.SECTION: commands belong to the tools, the rest to developers.
foreach(section 1 3 7 8)
    file(GLOB pages CONFIGURE_DEPENDS docs/man/*.${section})
    if(section EQUAL 1 OR section EQUAL 8)
        set(component tools)
    else()
        set(component development)
    endif()
    install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
        COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "the iosched authors")
set(CPACK_PACKAGE_CONTACT "the iosched authors <iosched@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "event loop and shared memory for single-threaded servers")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development)
if(TARGET arenactl)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libiosched${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libiosched-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libiosched${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libc6-dev")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME iosched-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
install(FILES LICENSE DESTINATION share/doc/libiosched${PROJECT_VERSION_MAJOR}
    COMPONENT runtime RENAME copyright)
install(FILES LICENSE DESTINATION share/doc/libiosched-dev COMPONENT development RENAME copyright)
install(FILES LICENSE DESTINATION share/doc/iosched-tools COMPONENT tools RENAME copyright)
include(CPack)
