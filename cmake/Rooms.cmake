# SPDX-License-Identifier: MIT
#
# What each folder may know is the table in docs/architecture.md; scripts/check-includes holds the
# includes to it, this file the libraries: tarnvale_check_rooms() fails if a target links one whose
# folder its own folder may not know.
#
# What stands behind the headers of platform/ counts as platform/ for everybody but the systems'
# own folders: those headers are all that the others include, and the linker chooses.

set(rooms_table "${PROJECT_SOURCE_DIR}/docs/architecture.md")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${rooms_table}")
file(STRINGS "${rooms_table}" rooms_lines REGEX "^[a-z]+[a-z/]* +->")
set(rooms)
foreach(line IN LISTS rooms_lines)
    string(REGEX REPLACE " +->.*" "" room "${line}")
    string(REGEX REPLACE ".*-> *" "" below "${line}")
    string(REGEX REPLACE " +" ";" below_${room} "${below}")
    list(APPEND rooms ${room})
endforeach()

# The longest folder in the table that the target's folder lies in; empty for a library of others.
function(tarnvale_room_of target out)
    set(${out} "" PARENT_SCOPE)
    get_target_property(aliased ${target} ALIASED_TARGET)
    if(aliased)
        set(target ${aliased})
    endif()
    get_target_property(imported ${target} IMPORTED)
    if(imported)
        return()
    endif()
    get_target_property(folder ${target} SOURCE_DIR)
    file(RELATIVE_PATH folder "${PROJECT_SOURCE_DIR}" "${folder}")
    while(folder)
        if(folder IN_LIST rooms)
            set(${out} ${folder} PARENT_SCOPE)
            return()
        endif()
        cmake_path(GET folder PARENT_PATH folder)
    endwhile()
endfunction()

function(tarnvale_check_rooms)
    get_property(targets GLOBAL PROPERTY tarnvale_targets)
    foreach(target IN LISTS targets)
        tarnvale_room_of(${target} from)
        if("*" IN_LIST below_${from})
            continue()
        endif()
        get_target_property(libraries ${target} LINK_LIBRARIES)
        foreach(library IN LISTS libraries)
            if(NOT TARGET ${library})
                continue()
            endif()
            tarnvale_room_of(${library} to)
            if(NOT from MATCHES "^platform/(linux|macos)")
                string(REGEX REPLACE "^platform/.*" "platform" to "${to}")
            endif()
            if(to AND NOT to STREQUAL from AND NOT to IN_LIST below_${from})
                message(SEND_ERROR "${target} links ${library}, but docs/architecture.md doesn't "
                    "let ${from} know ${to}")
            endif()
        endforeach()
    endforeach()
endfunction()
