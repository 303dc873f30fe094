# What only the Windows build has to show: its resources, its import libraries, and hosts in C that load it.
target_sources(load_tests PRIVATE exports/resources_win32_test.cpp)
target_link_libraries(load_tests PRIVATE version)

# Linked by the import library for other compilers, which this one reads, too.
add_executable(linked_host install/host.c)
target_include_directories(linked_host PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(linked_host PRIVATE ${PROJECT_BINARY_DIR}/VelMail64.lib)
add_dependencies(linked_host VelMail64 VelMail64_msvc)
set_target_properties(linked_host PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})
add_test(NAME LinkedHost COMMAND linked_host)

# From another folder than the host's own, with the transport beside the library, without it, and with one that lacks
# most of its functions.
add_executable(loader install/loader.c)
set(VELMAIL_ALONE ${CMAKE_CURRENT_BINARY_DIR}/alone/VelMail64.dll)
add_custom_command(OUTPUT ${VELMAIL_ALONE}
    COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:VelMail64> ${VELMAIL_ALONE} DEPENDS VelMail64 VERBATIM)
add_custom_target(library_alone ALL DEPENDS ${VELMAIL_ALONE})
add_test(NAME LoadedHost COMMAND loader $<TARGET_FILE:VelMail64> 0)
add_test(NAME LoadedHostWithoutTransport COMMAND loader ${VELMAIL_ALONE} 697)
set(VELMAIL_PARTIAL ${CMAKE_CURRENT_BINARY_DIR}/partial)
add_library(partial_transport SHARED install/partial.c)
set_target_properties(partial_transport PROPERTIES PREFIX "" OUTPUT_NAME libesmtp-6
    RUNTIME_OUTPUT_DIRECTORY ${VELMAIL_PARTIAL})
add_custom_command(TARGET partial_transport POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:VelMail64> ${VELMAIL_PARTIAL} VERBATIM)
add_dependencies(partial_transport VelMail64)
add_test(NAME LoadedHostWithPartialTransport COMMAND loader ${VELMAIL_PARTIAL}/VelMail64.dll 697)
velmail_wine_tests(CommandLineHost LinkedHost LoadedHost LoadedHostWithoutTransport LoadedHostWithPartialTransport)

add_test(NAME Binaries COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/install/binaries.sh ${CMAKE_OBJDUMP}
    ${PROJECT_SOURCE_DIR}/cmake/VelMail64.def $<TARGET_FILE:VelMail64> $<TARGET_FILE:esmtp>)

add_test(NAME Package COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/package/run.sh ${PROJECT_BINARY_DIR})
velmail_wine_tests(Package)
