# find_package(VelMail) for the unpacked zip: the target VelMail::VelMail64, and in VelMail_RUNTIME_FILES the DLLs that go
# beside the program.
get_filename_component(VelMail_ROOT "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)
set(VelMail_RUNTIME_FILES
    "${VelMail_ROOT}/VelMail64.dll" "${VelMail_ROOT}/libesmtp-6.dll" "${VelMail_ROOT}/libcurl-x64.dll")
if(NOT TARGET VelMail::VelMail64)
    add_library(VelMail::VelMail64 SHARED IMPORTED)
    if(MINGW)
        set(VelMail_IMPLIB libVelMail64.dll.a)
    else()
        set(VelMail_IMPLIB VelMail64.lib)
    endif()
    set_target_properties(VelMail::VelMail64 PROPERTIES
        IMPORTED_LOCATION "${VelMail_ROOT}/VelMail64.dll"
        IMPORTED_IMPLIB "${VelMail_ROOT}/lib/${VelMail_IMPLIB}"
        INTERFACE_INCLUDE_DIRECTORIES "${VelMail_ROOT}/include")
endif()
