# What `cmake --install` lays down: headers, both libraries, iosched.pc, the CMake package, arenactl
# with its completions, and the man pages. Three components: "runtime", "development" and "tools".
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

install(FILES docs/iosched.supp DESTINATION ${CMAKE_INSTALL_DATADIR}/iosched COMPONENT development)
# Written at install time, when the prefix is known: plain paths, which pkg-config leaves out of its
# answer where the compiler looks anyway. A tree that is moved later is found by --define-prefix.
install(CODE "
    set(prefix \"\${CMAKE_INSTALL_PREFIX}\")
    set(libdir \"${CMAKE_INSTALL_LIBDIR}\")
    set(includedir \"${CMAKE_INSTALL_INCLUDEDIR}\")
    set(version \"${PROJECT_VERSION}\")
    configure_file(\"${PROJECT_SOURCE_DIR}/cmake/iosched.pc.in\"
        \"${PROJECT_BINARY_DIR}/iosched.pc\" @ONLY)"
    COMPONENT development)
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
    # Where zsh looks below /usr/local; distributions have places of their own below /usr.
    set(IOSCHED_ZSH_DIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions CACHE STRING
        "Where zsh finds completions")
    set(completions ${PROJECT_SOURCE_DIR}/tools/arenactl/completions)
    install(FILES ${completions}/arenactl.bash RENAME arenactl COMPONENT tools
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
    install(FILES ${completions}/_arenactl DESTINATION ${IOSCHED_ZSH_DIR} COMPONENT tools)
    install(FILES ${completions}/arenactl.fish COMPONENT tools
        DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
    install(FILES docs/arenactl.schema.json DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT tools)
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

file(GLOB example_programs CONFIGURE_DEPENDS examples/*.c)
install(FILES ${example_programs} examples/filed/filed.service examples/filed/filed.socket
    DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT development)

# A page for every exported function, out of the headers' comments; without Python there are none.
find_package(Python3 COMPONENTS Interpreter)
if(Python3_Interpreter_FOUND)
    file(GLOB_RECURSE page_sources CONFIGURE_DEPENDS include/iosched/*.h examples/*.c)
    set(function_pages ${PROJECT_BINARY_DIR}/man3iosched)
    add_custom_command(OUTPUT ${function_pages}.made
        COMMAND ${CMAKE_COMMAND} -E rm -rf ${function_pages}
        COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/docs/man/make_pages.py
            ${PROJECT_SOURCE_DIR} ${function_pages}
        COMMAND ${CMAKE_COMMAND} -E touch ${function_pages}.made
        DEPENDS docs/man/make_pages.py src/exports.list debian/changelog ${page_sources}
        COMMENT "Manual pages from the headers" VERBATIM)
    add_custom_target(function_pages ALL DEPENDS ${function_pages}.made)
    install(DIRECTORY ${function_pages}/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man3
        COMPONENT development)
endif()

# What the last `cmake --install` of this build tree laid down, by its manifest.
add_custom_target(uninstall
    COMMAND ${CMAKE_COMMAND} -D MANIFEST=${PROJECT_BINARY_DIR}/install_manifest.txt
        -P ${PROJECT_SOURCE_DIR}/cmake/uninstall.cmake
    VERBATIM)
