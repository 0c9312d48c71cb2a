# Removes the files of an installation. MANIFEST is the list that `cmake --install` has left.
if(NOT EXISTS "${MANIFEST}")
    message(FATAL_ERROR "nothing to remove: ${MANIFEST} is missing; install from this build tree first")
endif()
file(STRINGS "${MANIFEST}" files)
foreach(file IN LISTS files)
    message(STATUS "removing ${file}")
    file(REMOVE "$ENV{DESTDIR}${file}")
endforeach()
