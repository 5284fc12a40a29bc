# SPDX-License-Identifier: GPL-3.0-or-later
# Runs while installing, after the FERRYBOX_* variables of packaging/CMakeLists.txt are set:
# writes the files that name the installed programs for this install's prefix and installs them
# like any other file (DESTDIR and the install manifest included).
if(IS_ABSOLUTE "${FERRYBOX_INSTALL_BINDIR}")
    set(FERRYBOX_BINDIR "${FERRYBOX_INSTALL_BINDIR}")
else()
    set(FERRYBOX_BINDIR "${CMAKE_INSTALL_PREFIX}/${FERRYBOX_INSTALL_BINDIR}")
endif()
cmake_path(NORMAL_PATH FERRYBOX_BINDIR)
# The path goes unquoted into an Exec line and an ExecStart line, where blanks and quotes
# would split or change it.
if(NOT FERRYBOX_BINDIR MATCHES "^[A-Za-z0-9/._+-]+$")
    message(FATAL_ERROR "Ferrybox cannot be installed under ${FERRYBOX_BINDIR}: its desktop "
                        "entry and units need a path of letters, digits and / . _ + - only")
endif()
set(FERRYBOX_USER_UNIT_DIR "${CMAKE_INSTALL_PREFIX}/lib/systemd/user")
cmake_path(NORMAL_PATH FERRYBOX_USER_UNIT_DIR)

# A folder of this install's own, so that concurrent installs and an earlier `sudo` install
# leave nothing in each other's way.
string(RANDOM LENGTH 10 run)
set(staging "${FERRYBOX_STAGING}/install-${run}")

# Each template with the folder it goes to. (A loop, not a function: file(INSTALL) records
# what it installed in a variable of the calling scope.)
set(templates
    ferrybox.desktop.in "${FERRYBOX_INSTALL_DATADIR}/applications"
    ferrybox-notes.service.in "${FERRYBOX_USER_UNIT_DIR}"
    ferrybox-headless.service.in "${FERRYBOX_USER_UNIT_DIR}"
    ferrybox.1.in "${FERRYBOX_INSTALL_MANDIR}/man1"
    ferrybox-notes.1.in "${FERRYBOX_INSTALL_MANDIR}/man1"
    ferrybox-json.1.in "${FERRYBOX_INSTALL_MANDIR}/man1")
while(templates)
    list(POP_FRONT templates template destination)
    cmake_path(GET template STEM LAST_ONLY name)
    configure_file("${FERRYBOX_TEMPLATES}/${template}" "${staging}/${name}" @ONLY)
    # Manual pages are kept compressed, as man and Debian expect; -n keeps the output the same
    # from one build to the next.
    if(destination MATCHES "man1$")
        execute_process(COMMAND gzip -9nf "${staging}/${name}" COMMAND_ERROR_IS_FATAL ANY)
        string(APPEND name ".gz")
    endif()
    if(NOT IS_ABSOLUTE "${destination}")
        set(destination "${CMAKE_INSTALL_PREFIX}/${destination}")
    endif()
    file(INSTALL DESTINATION "${destination}" TYPE FILE FILES "${staging}/${name}")
endwhile()
file(REMOVE_RECURSE "${staging}")
