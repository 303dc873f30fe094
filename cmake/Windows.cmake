# What the Windows build has of its own: the system's version and headers, one runtime inside each binary, and
# the same bytes for the same sources.
add_compile_definitions(_WIN32_WINNT=0x0601 NOMINMAX WIN32_LEAN_AND_MEAN)
add_link_options(-static -s LINKER:--no-insert-timestamp)
# Programs of the build run under Wine in the build's own prefix.
set(CMAKE_CROSSCOMPILING_EMULATOR ${PROJECT_SOURCE_DIR}/scripts/wine-run)
set(CMAKE_RC_FLAGS "-c 65001") # the sources are UTF-8
enable_language(RC)

# Makes TARGET the library of the ten exports: under its names and no other, with a resource of its version and its
# texts, and with import libraries for both kinds of compilers.
function(velmail_windows_library TARGET)
    set(definition ${PROJECT_SOURCE_DIR}/cmake/VelMail64.def)
    set(strings ${CMAKE_CURRENT_BINARY_DIR}/stringtable.rc)
    add_custom_command(OUTPUT ${strings}
        COMMAND ${CMAKE_COMMAND} -DTEXTS=${CMAKE_CURRENT_SOURCE_DIR}/errortexts.cpp -DOUT=${strings}
            -P ${PROJECT_SOURCE_DIR}/cmake/StringTable.cmake
        DEPENDS errortexts.cpp ${PROJECT_SOURCE_DIR}/cmake/StringTable.cmake VERBATIM)
    set_source_files_properties(velmail.rc PROPERTIES OBJECT_DEPENDS ${strings})
    target_sources(${TARGET} PRIVATE velmail.rc ${strings} ${definition})
    set_source_files_properties(${strings} PROPERTIES HEADER_FILE_ONLY ON)
    target_include_directories(${TARGET} PRIVATE ${CMAKE_CURRENT_BINARY_DIR} ${PROJECT_BINARY_DIR}/generated)
    set_target_properties(${TARGET} PROPERTIES PREFIX "" RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})

    set(msvc ${PROJECT_BINARY_DIR}/VelMail64.lib)
    add_custom_command(OUTPUT ${msvc}
        COMMAND ${CMAKE_DLLTOOL} --temp-prefix velmail -m i386:x86-64 -d ${definition} -l VelMail64.lib
        WORKING_DIRECTORY ${PROJECT_BINARY_DIR} DEPENDS ${definition} VERBATIM) # a path would be in the library
    add_custom_target(${TARGET}_msvc ALL DEPENDS ${msvc})
endfunction()
