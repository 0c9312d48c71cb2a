# What `cmake --install` lays down: headers, both libraries, iosched.pc, the CMake package, arenactl
# and the man pages. Two components, as Debian splits them: "runtime" and "development".
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
    install(TARGETS arenactl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
endif()

# docs/man/NAME.SECTION: commands belong to the runtime, the rest to developers.
foreach(section 1 3 7 8)
    file(GLOB pages CONFIGURE_DEPENDS docs/man/*.${section})
    if(section EQUAL 1 OR section EQUAL 8)
        set(component runtime)
    else()
        set(component development)
    endif()
    install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
        COMPONENT ${component})
endforeach()
