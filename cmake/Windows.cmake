# What the Windows build has of its own: the system's version and headers, one runtime inside each binary, and
# the same bytes for the same sources.
add_compile_definitions(_WIN32_WINNT=0x0601 NOMINMAX WIN32_LEAN_AND_MEAN)
add_link_options(-static -s LINKER:--no-insert-timestamp)
# Programs of the build run under Wine in the build's own prefix.
set(CMAKE_CROSSCOMPILING_EMULATOR ${PROJECT_SOURCE_DIR}/scripts/wine-run)
set(CMAKE_RC_FLAGS "-c 65001") # the sources are UTF-8
enable_language(RC)

# Gives TARGET, made as FILE, a resource of its version; TYPE is VFT_DLL or VFT_APP, more arguments are further lines.
function(velmail_version_resource target file type internal description)
    list(JOIN ARGN "\n" extra)
    set(resource ${CMAKE_CURRENT_BINARY_DIR}/${target}-version.rc)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/versioninfo.rc.in ${resource} @ONLY)
    target_sources(${target} PRIVATE ${resource})
endfunction()

# Makes TARGET the library of the ten exports: under its names and no other, with a resource of its version and its
# texts, and with import libraries for both kinds of compilers.
function(velmail_windows_library TARGET)
    set(definition ${PROJECT_SOURCE_DIR}/cmake/VelMail64.def)
    set(strings ${CMAKE_CURRENT_BINARY_DIR}/stringtable.rc)
    add_custom_command(OUTPUT ${strings}
        COMMAND ${CMAKE_COMMAND} -DTEXTS=${CMAKE_CURRENT_SOURCE_DIR}/errortexts.cpp -DOUT=${strings}
            -P ${PROJECT_SOURCE_DIR}/cmake/StringTable.cmake
        DEPENDS errortexts.cpp ${PROJECT_SOURCE_DIR}/cmake/StringTable.cmake VERBATIM)
    velmail_version_resource(${TARGET} VelMail64.dll VFT_DLL VELMAIL32 "VEL mail" "#include \"${strings}\"")
    set_source_files_properties(${CMAKE_CURRENT_BINARY_DIR}/${TARGET}-version.rc PROPERTIES OBJECT_DEPENDS ${strings})
    target_sources(${TARGET} PRIVATE ${strings} ${definition})
    set_source_files_properties(${strings} PROPERTIES HEADER_FILE_ONLY ON)
    set_target_properties(${TARGET} PROPERTIES PREFIX "" RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})

    # LLVM's tool, since binutils' makes entries that Microsoft's linker does not delay (/DELAYLOAD).
    set(msvc ${PROJECT_BINARY_DIR}/VelMail64.lib)
    find_program(VELMAIL_LLVM_DLLTOOL NAMES llvm-dlltool llvm-dlltool-14 REQUIRED)
    add_custom_command(OUTPUT ${msvc}
        COMMAND ${VELMAIL_LLVM_DLLTOOL} -m i386:x86-64 -d ${definition} -l ${msvc} DEPENDS ${definition} VERBATIM)
    add_custom_target(${TARGET}_msvc ALL DEPENDS ${msvc})
endfunction()
