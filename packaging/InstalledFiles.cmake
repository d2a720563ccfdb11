# Install-time: ravel's own record of what its install steps put into the installed folder,
# <prefix>/login/installed-files, one path relative to the prefix per line. Every `cmake --install`
# (of any component) adds its files, so the record covers every install run, which CMake's
# install_manifest.txt (rewritten by each run) does not; login/uninstall.sh removes what it lists.
function(ravel_record_installed)
    get_filename_component(folder "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)
    set(record "$ENV{DESTDIR}${folder}/login/installed-files")
    set(files ${ARGN})
    if(EXISTS "${record}")
        file(STRINGS "${record}" before)
        list(APPEND files ${before})
    endif()
    list(REMOVE_DUPLICATES files)
    list(SORT files)
    list(JOIN files "\n" text)
    file(WRITE "${record}" "${text}\n")
    set(manifest ${CMAKE_INSTALL_MANIFEST_FILES})
    list(APPEND manifest "${folder}/login/installed-files")
    set(CMAKE_INSTALL_MANIFEST_FILES "${manifest}" PARENT_SCOPE)
endfunction()
