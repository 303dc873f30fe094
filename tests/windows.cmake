# What only the Windows build has to show: its imports and its resources, and a host that loads it from another folder
# than its own, without the transport beside the library, and with one that lacks most of its functions.
set(VELMAIL_ALONE ${CMAKE_CURRENT_BINARY_DIR}/alone/VelMail64.dll)
add_custom_command(OUTPUT ${VELMAIL_ALONE}
    COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:VelMail64> ${VELMAIL_ALONE} DEPENDS VelMail64 VERBATIM)
add_custom_target(library_alone ALL DEPENDS ${VELMAIL_ALONE})
set(VELMAIL_MAIL MailServer=127.0.0.1 MailServerPort=1 MailSubject=Hello)
add_test(NAME LoadedHostWithoutTransport COMMAND velmail --library ${VELMAIL_ALONE} ${VELMAIL_MAIL})
set(VELMAIL_PARTIAL ${CMAKE_CURRENT_BINARY_DIR}/partial)
add_library(partial_transport SHARED install/partial.c)
set_target_properties(partial_transport PROPERTIES PREFIX "" OUTPUT_NAME libesmtp-6
    RUNTIME_OUTPUT_DIRECTORY ${VELMAIL_PARTIAL})
add_custom_command(TARGET partial_transport POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:VelMail64> ${VELMAIL_PARTIAL} VERBATIM)
add_dependencies(partial_transport VelMail64)
add_test(NAME LoadedHostWithPartialTransport
    COMMAND velmail --library ${VELMAIL_PARTIAL}/VelMail64.dll ${VELMAIL_MAIL})
velmail_wine_tests(CommandLineHost HostOutcomes SubmissionHost Example.c Example.cpp
    LoadedHostWithoutTransport LoadedHostWithPartialTransport)
set_tests_properties(LoadedHostWithoutTransport LoadedHostWithPartialTransport
    PROPERTIES PASS_REGULAR_EXPRESSION "error 697")

add_test(NAME Binaries COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/install/binaries.sh ${CMAKE_OBJDUMP}
    ${PROJECT_SOURCE_DIR}/cmake/VelMail64.def $<TARGET_FILE:VelMail64> $<TARGET_FILE:esmtp> $<TARGET_FILE:curl_library>)

add_test(NAME Package COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/package/windows.sh ${PROJECT_BINARY_DIR})
velmail_wine_tests(Package)
