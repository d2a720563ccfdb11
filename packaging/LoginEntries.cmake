# Install-time half of the login entries, run by `cmake --install` and by cpack: fills the
# templates beside this file for the folder being installed into and writes them as
# <prefix>/login/<label>.plist and <prefix>/login/<label>.desktop (under $DESTDIR when set, so a
# staged install names the final folder), listed in the install manifest like any installed file.

# `text` as XML character data.
function(ravel_xml_text out text)
    string(REPLACE "&" "&amp;" text "${text}")
    string(REPLACE "<" "&lt;" text "${text}")
    string(REPLACE ">" "&gt;" text "${text}")
    set(${out} "${text}" PARENT_SCOPE)
endfunction()

# `path` as the Exec value of a freedesktop entry, one word: double-quoted unless it holds only
# plain characters, with \ " ` $ escaped inside the quotes and % doubled; then escaped as every
# string value of a desktop entry is (\\ \n \t \r), so a literal backslash ends up as four.
function(ravel_desktop_exec out path)
    set(word "${path}")
    if(NOT word MATCHES "^[-A-Za-z0-9/._+,:@%=]*$")
        foreach(special [[\]] [["]] [[`]] [[$]])
            string(REPLACE "${special}" "\\${special}" word "${word}")
        endforeach()
        set(word "\"${word}\"")
    endif()
    string(REPLACE "%" "%%" word "${word}")
    string(REPLACE [[\]] [[\\]] word "${word}")
    string(REPLACE "\n" [[\n]] word "${word}")
    string(REPLACE "\t" [[\t]] word "${word}")
    string(REPLACE "\r" [[\r]] word "${word}")
    set(${out} "${word}" PARENT_SCOPE)
endfunction()

# `text` as a string value of a freedesktop entry (\\ \n \t \r escaped).
function(ravel_desktop_string out text)
    string(REPLACE [[\]] [[\\]] text "${text}")
    string(REPLACE "\n" [[\n]] text "${text}")
    string(REPLACE "\t" [[\t]] text "${text}")
    string(REPLACE "\r" [[\r]] text "${text}")
    set(${out} "${text}" PARENT_SCOPE)
endfunction()

# Writes both entries for the installed folder CMAKE_INSTALL_PREFIX; `name` is the login entry's
# name as sessions show it, `templates` the folder of the .in files. Adds the written files to
# CMAKE_INSTALL_MANIFEST_FILES of the caller.
function(ravel_fill_login_entries label name templates)
    get_filename_component(folder "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)
    set(exe "${folder}/ravel.app/Contents/MacOS/ravel")
    set(RAVEL_LOGIN_LABEL "${label}")
    ravel_xml_text(RAVEL_EXECUTABLE_XML "${exe}")
    ravel_desktop_exec(RAVEL_EXECUTABLE_EXEC "${exe}")
    ravel_desktop_string(RAVEL_LOGIN_NAME_DESKTOP "${name}")
    set(manifest ${CMAKE_INSTALL_MANIFEST_FILES})
    foreach(template LaunchAgent.plist autostart.desktop)
        get_filename_component(suffix "${template}" LAST_EXT)
        set(file "${folder}/login/${label}${suffix}")
        file(READ "${templates}/${template}.in" text)
        string(CONFIGURE "${text}" text @ONLY)
        message(STATUS "Installing: $ENV{DESTDIR}${file}")
        file(WRITE "$ENV{DESTDIR}${file}" "${text}")
        list(APPEND manifest "${file}")
    endforeach()
    set(CMAKE_INSTALL_MANIFEST_FILES "${manifest}" PARENT_SCOPE)
endfunction()
