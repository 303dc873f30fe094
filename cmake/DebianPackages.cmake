# The Debian packages, one for each component. scripts/package makes them, and sets VELMAIL_DEBIAN_DOCUMENTS to a folder
# with what Debian wants beside the files; everybody else installs without.
if(NOT VELMAIL_DEBIAN_DOCUMENTS)
    return()
endif()
set(VELMAIL_MAINTAINER "VEL mail developers <velmail@mail.invalid>" CACHE STRING
    "Name and address of who makes the Debian packages and answers for them")

# PACKAGE of COMPONENT, with what follows as its description: a summary, then the long one in one string.
function(velmail_debian_package component package section summary text)
    install(FILES ${VELMAIL_DEBIAN_DOCUMENTS}/copyright ${VELMAIL_DEBIAN_DOCUMENTS}/changelog.Debian.gz
        DESTINATION share/doc/${package} COMPONENT ${component})
    string(TOUPPER ${component} name)
    set(CPACK_DEBIAN_${name}_PACKAGE_NAME ${package} PARENT_SCOPE)
    set(CPACK_DEBIAN_${name}_PACKAGE_SECTION ${section} PARENT_SCOPE)
    set(CPACK_DEBIAN_${name}_DESCRIPTION "${summary}\n${text}" PARENT_SCOPE)
endfunction()

set(about "VEL mail hands one mail to one server: over SMTP to a relay, or encrypted
and with a login to a company's server. It streams attachments in fixed
memory, and every failure has a number and a sentence.
.
")
velmail_debian_package(library libvelmail64-1 libs "mail sending library with ten C functions"
    "${about}This package has the library that hosts load.")
velmail_debian_package(development libvelmail64-dev libdevel "mail sending library with ten C functions - for developers"
    "${about}This package has the header, the documents, and what CMake and
pkg-config want.")
velmail_debian_package(program velmail mail "send one mail from the command line"
    "${about}This package has the command-line program.")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs ${PROJECT_SOURCE_DIR}/examples
    DESTINATION share/doc/libvelmail64-dev COMPONENT development PATTERN LICENSES.txt EXCLUDE)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION share/doc/libvelmail64-dev COMPONENT development)
install(FILES ${VELMAIL_DEBIAN_DOCUMENTS}/velmail.1.gz DESTINATION share/man/man1 COMPONENT program)

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library development program)
set(CPACK_PACKAGE_NAME velmail)
set(CPACK_PACKAGE_CONTACT ${VELMAIL_MAINTAINER})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${VELMAIL_REVISION})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# Only the library's own targets are built, so installing must not want all of them.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(exactly "${PROJECT_VERSION}-${VELMAIL_REVISION}")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SHLIBDEPS ON)
# It is loaded by name at run time, where dpkg-shlibdeps does not see it.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "libcurl4 (>= 7.85)")
# CPack's own would run ldconfig in scripts, where a trigger is wanted.
file(WRITE ${PROJECT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
file(WRITE ${PROJECT_BINARY_DIR}/debian/shlibs
    "libVelMail64 ${PROJECT_VERSION_MAJOR} libvelmail64-1 (>= ${exactly})\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/triggers ${PROJECT_BINARY_DIR}/debian/shlibs)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS "libvelmail64-1 (= ${exactly})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libvelmail64-1 (= ${exactly})")
include(CPack)
