# The default of RAVEL_LIBS_BESIDE_BUNDLE. A product that ships its own libraries beside the
# bundle needs the run-time path to them: on macOS, and wherever Qt is not the system's. An agent
# linked against the system's Qt on Linux needs none, and one would point into the data folder,
# where every account on the machine may put a library for the agent to load (docs/shipping.md).

# Sets `out` to OFF when `qt_dir` (where Qt6's package configuration was found, Qt6_DIR) lies in
# the system's folders (under /usr, but not /usr/local) and `apple` is false; ON otherwise.
function(ravel_libs_beside_bundle_default out qt_dir apple)
    file(REAL_PATH "${qt_dir}" qt_dir)
    if(NOT apple AND qt_dir MATCHES "^/usr/" AND NOT qt_dir MATCHES "^/usr/local/")
        set(${out} OFF PARENT_SCOPE)
    else()
        set(${out} ON PARENT_SCOPE)
    endif()
endfunction()
