# What every target of the project is compiled with.

# iosched_options: warnings, sanitizers and reproducible file names, for every target.
add_library(iosched_options INTERFACE)
target_compile_options(iosched_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
    # Trace points and assertions name files; a build tree's place is nobody's business.
    "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=")
target_compile_definitions(iosched_options INTERFACE _GNU_SOURCE)
if(IOSCHED_WERROR)
    target_compile_options(iosched_options INTERFACE -Werror)
endif()
if(IOSCHED_SANITIZE)
    target_compile_options(iosched_options INTERFACE
        -fsanitize=${IOSCHED_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(iosched_options INTERFACE -fsanitize=${IOSCHED_SANITIZE})
    # clang would put its sanitizer into the program, where the tests' wrappers took its calls for
    # the library's, before it is ready for any.
    if(CMAKE_CXX_COMPILER_ID MATCHES Clang AND IOSCHED_SANITIZE MATCHES address
        AND NOT IOSCHED_SANITIZE MATCHES fuzzer)
        execute_process(COMMAND_ERROR_IS_FATAL ANY OUTPUT_STRIP_TRAILING_WHITESPACE
            COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libclang_rt.asan-${CMAKE_SYSTEM_PROCESSOR}.so
            OUTPUT_VARIABLE sanitizer)
        cmake_path(GET sanitizer PARENT_PATH sanitizer)
        target_link_options(iosched_options INTERFACE -shared-libasan LINKER:-rpath,${sanitizer})
    endif()
endif()

# iosched_freestanding_cxx: C++ whose objects a C program can link without libstdc++.
add_library(iosched_freestanding_cxx INTERFACE)
target_compile_options(iosched_freestanding_cxx INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)
