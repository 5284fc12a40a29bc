# SPDX-License-Identifier: GPL-3.0-or-later
# Compile settings shared by every target of ours, carried by one INTERFACE target.
add_library(ferrybox_common INTERFACE)
target_compile_options(ferrybox_common INTERFACE -Wall -Wextra -Werror)
# glib's headers use `signals` as a field name, so Qt's keyword macros stay off.
target_compile_definitions(ferrybox_common INTERFACE QT_NO_KEYWORDS)
target_include_directories(ferrybox_common INTERFACE ${PROJECT_SOURCE_DIR})

set(CMAKE_AUTOMOC ON)
set(CMAKE_AUTOUIC ON)

# ferrybox_add_library(NAME SOURCES... [DEPENDS targets...])
function(ferrybox_add_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_link_libraries(${name} PUBLIC ferrybox_common ${ARG_DEPENDS})
endfunction()

# The version that every program prints with --version: the project's, from the top-level
# CMakeLists.txt, and nowhere else.
add_library(ferrybox_version INTERFACE)
target_compile_definitions(ferrybox_version INTERFACE FERRYBOX_VERSION="${PROJECT_VERSION}")
