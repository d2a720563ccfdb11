# Putting ravel into a product's installed folder: the login entries and the .tar.gz archive.
# The agent's and the examples' own install rules live beside their targets.

# The labels name files and launchd jobs: reverse-domain names only.
foreach(var RAVEL_LOGIN_LABEL RAVEL_BUNDLE_IDENTIFIER)
    if(NOT "${${var}}" MATCHES "^[A-Za-z0-9-]+(\\.[A-Za-z0-9-]+)+$")
        message(FATAL_ERROR
            "${var} \"${${var}}\" is not a reverse-domain name such as com.example.ravel")
    endif()
endforeach()

# Installs <prefix>/login/<RAVEL_LOGIN_LABEL>.plist and .desktop, filled at install time for the
# folder installed into, and scripts/register-login.sh and the uninstall script beside them, in
# `component`.
function(ravel_install_login_entries component)
    set(here "${CMAKE_CURRENT_FUNCTION_LIST_DIR}")
    install(CODE "include(\"${here}/LoginEntries.cmake\")
        ravel_fill_login_entries(\"${RAVEL_LOGIN_LABEL}\" \"${RAVEL_LOGIN_NAME}\" \"${here}\")"
        COMPONENT ${component})
    install(PROGRAMS ${PROJECT_SOURCE_DIR}/scripts/register-login.sh ${here}/uninstall.sh
        DESTINATION login COMPONENT ${component})
    ravel_record_installed_files(${component} "login/${RAVEL_LOGIN_LABEL}.plist"
        "login/${RAVEL_LOGIN_LABEL}.desktop" login/register-login.sh login/uninstall.sh
        login/installed-files)
endfunction()

# Adds FILES (relative to the prefix) to <prefix>/login/installed-files when `component` is
# installed (see InstalledFiles.cmake); EXCLUDE_FROM_ALL as for the component's own rules.
function(ravel_record_installed_files component)
    cmake_parse_arguments(R "EXCLUDE_FROM_ALL" "" "" ${ARGN})
    list(JOIN R_UNPARSED_ARGUMENTS "\" \"" quoted)
    set(exclude)
    if(R_EXCLUDE_FROM_ALL)
        set(exclude EXCLUDE_FROM_ALL)
    endif()
    install(CODE "include(\"${PROJECT_SOURCE_DIR}/packaging/InstalledFiles.cmake\")
        ravel_record_installed(\"${quoted}\")" COMPONENT ${component} ${exclude})
endfunction()

# `cpack --config build/CPackConfig.cmake`: one .tar.gz of everything `cmake --install` puts
# into CMAKE_INSTALL_PREFIX, staged through DESTDIR so that the login entries name that folder.
# Unpacked at / (or anywhere, then looked at below the prefix) it is the installed folder. Its
# name tells the profile: ravel-1.0.0-shared-Linux.tar.gz.
set(profile "${RAVEL_PROFILE}")
if(profile STREQUAL "")
    set(profile shared) # the default profile
endif()
set(CPACK_PACKAGE_FILE_NAME "${PROJECT_NAME}-${PROJECT_VERSION}-${profile}-${CMAKE_SYSTEM_NAME}")
set(CPACK_GENERATOR TGZ)
set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SET_DESTDIR ON)
set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "ravel, the update agent, in a product's installed folder")
include(CPack)
