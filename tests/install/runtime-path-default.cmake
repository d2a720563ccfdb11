# The default of RAVEL_LIBS_BESIDE_BUNDLE (packaging/RuntimePath.cmake) for Qt found in various
# places, on Linux and on macOS. Fails naming every row whose default is not the expected one.
# Usage: cmake -P runtime-path-default.cmake
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/../../packaging/RuntimePath.cmake)

set(failed "")
# row name | where Qt6's configuration was found | macOS | expected default
foreach(row
        "Debian's Qt|/usr/lib/x86_64-linux-gnu/cmake/Qt6||OFF"
        "a distribution's Qt under /usr/lib64|/usr/lib64/cmake/Qt6||OFF"
        "Qt built from source into /usr/local|/usr/local/Qt-6.5.3/lib/cmake/Qt6||ON"
        "Qt from the online installer under /opt|/opt/Qt/6.5.3/gcc_64/lib/cmake/Qt6||ON"
        "Qt in a home folder|/home/dev/Qt/6.5.3/gcc_64/lib/cmake/Qt6||ON"
        "a folder whose name only begins like /usr|/usrlocal/lib/cmake/Qt6||ON"
        "Homebrew's Qt on macOS|/opt/homebrew/lib/cmake/Qt6|1|ON"
        "a Qt under /usr on macOS|/usr/lib/cmake/Qt6|1|ON")
    string(REPLACE "|" ";" fields "${row}")
    list(GET fields 0 name)
    list(GET fields 1 qt_dir)
    list(GET fields 2 apple)
    list(GET fields 3 expected)
    ravel_libs_beside_bundle_default(default "${qt_dir}" "${apple}")
    if(NOT default STREQUAL expected)
        string(APPEND failed "\n  ${name}: ${default}, expected ${expected}")
    endif()
endforeach()
if(failed)
    message(FATAL_ERROR "wrong defaults:${failed}")
endif()
message(STATUS "every row has its expected default")
