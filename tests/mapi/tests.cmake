# The delivery through a mail client of ours, in a folder of its own: no other program must find that MAPI32.DLL.
set(folder ${PROJECT_BINARY_DIR}/mapi)
add_library(mapi_recorder SHARED mapi/recorder.cpp mapi/recorder.def)
target_include_directories(mapi_recorder PRIVATE ${PROJECT_SOURCE_DIR})
set_target_properties(mapi_recorder PROPERTIES PREFIX "" OUTPUT_NAME MAPI32 RUNTIME_OUTPUT_DIRECTORY ${folder})
add_executable(mapi_tests mapi/mapi_win32_test.cpp)
target_link_libraries(mapi_tests PRIVATE test_support GTest::gtest_main)
set_target_properties(mapi_tests PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${folder})
add_dependencies(mapi_tests mapi_recorder velmail)
add_custom_command(TARGET mapi_tests POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:VelMail64> $<TARGET_FILE:velmail> ${folder}
    COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:mapi_recorder> ${folder}/recorder.dll VERBATIM)

# Registered, it is found by the system's own, which passes on to it.
set(clients "HKLM\\SOFTWARE\\Clients\\Mail")
file(TO_NATIVE_PATH ${folder}/recorder.dll recorder)
string(REPLACE "/" "\\" recorder "Z:${recorder}")
set(run ${CMAKE_CROSSCOMPILING_EMULATOR} reg)
add_test(NAME MapiRegister COMMAND ${run} add "${clients}\\VEL mail test" /v DLLPath /d ${recorder} /f)
add_test(NAME MapiRegisterDefault COMMAND ${run} add ${clients} /ve /d "VEL mail test" /f)
add_test(NAME MapiUnregister COMMAND ${run} delete "${clients}\\VEL mail test" /f)
add_test(NAME MapiUnregisterDefault COMMAND ${run} add ${clients} /ve /d "" /f)
set_tests_properties(MapiRegister MapiRegisterDefault PROPERTIES FIXTURES_SETUP MapiRegistration)
set_tests_properties(MapiUnregister MapiUnregisterDefault PROPERTIES FIXTURES_CLEANUP MapiRegistration)

add_test(NAME MapiClientBesideTheHost COMMAND mapi_tests)
add_test(NAME MapiClientRegistered COMMAND mapi_tests)
velmail_wine_tests(MapiRegister MapiRegisterDefault MapiUnregister MapiUnregisterDefault
    MapiClientBesideTheHost MapiClientRegistered)
set_tests_properties(MapiClientBesideTheHost PROPERTIES ENVIRONMENT "WINEDLLOVERRIDES=mapi32=n")
set_tests_properties(MapiClientRegistered PROPERTIES FIXTURES_REQUIRED "Wine;MapiRegistration"
    ENVIRONMENT "WINEDLLOVERRIDES=mapi32=b;VELMAIL_REGISTERED=1")
