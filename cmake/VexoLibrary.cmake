# vexo_add_library: how every library target of the project is made, so that each gets the
# same warnings and sanitizer flags and states its include directories and links in one place.
#
#   vexo_add_library(<name>
#       [SOURCES <files>...]            # none: an INTERFACE library (headers, link options)
#       [PUBLIC_INCLUDE <dirs>...]      # seen by the library and by what links it
#       [PRIVATE_INCLUDE <dirs>...]     # seen by the library's own sources only
#       [PUBLIC_LINK <libraries>...]
#       [PRIVATE_LINK <libraries>...]
#       [COVERAGE])                     # lines counted by the coverage build (the module)
#
# A STATIC library gets vexo_target_warnings and vexo_target_sanitize, and vexo_target_coverage
# when COVERAGE is given. For an INTERFACE library PUBLIC_* become INTERFACE_* and PRIVATE_*
# are refused. Third-party headers come in through imported targets (PUBLIC_LINK or
# PRIVATE_LINK), which CMake passes as system include directories: never name a third-party
# directory in PUBLIC_INCLUDE or PRIVATE_INCLUDE.

function(vexo_add_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "COVERAGE"
        "" "SOURCES;PUBLIC_INCLUDE;PRIVATE_INCLUDE;PUBLIC_LINK;PRIVATE_LINK")
    if(arg_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "vexo_add_library(${name}): unexpected arguments ${arg_UNPARSED_ARGUMENTS}")
    endif()

    if(NOT arg_SOURCES)
        if(arg_PRIVATE_INCLUDE OR arg_PRIVATE_LINK OR arg_COVERAGE)
            message(FATAL_ERROR
                "vexo_add_library(${name}): an INTERFACE library has no PRIVATE_* and no COVERAGE")
        endif()
        add_library(${name} INTERFACE)
        if(arg_PUBLIC_INCLUDE)
            target_include_directories(${name} INTERFACE ${arg_PUBLIC_INCLUDE})
        endif()
        if(arg_PUBLIC_LINK)
            target_link_libraries(${name} INTERFACE ${arg_PUBLIC_LINK})
        endif()
        return()
    endif()

    add_library(${name} STATIC ${arg_SOURCES})
    if(arg_PUBLIC_INCLUDE)
        target_include_directories(${name} PUBLIC ${arg_PUBLIC_INCLUDE})
    endif()
    if(arg_PRIVATE_INCLUDE)
        target_include_directories(${name} PRIVATE ${arg_PRIVATE_INCLUDE})
    endif()
    if(arg_PUBLIC_LINK)
        target_link_libraries(${name} PUBLIC ${arg_PUBLIC_LINK})
    endif()
    if(arg_PRIVATE_LINK)
        target_link_libraries(${name} PRIVATE ${arg_PRIVATE_LINK})
    endif()
    vexo_target_warnings(${name})
    vexo_target_sanitize(${name})
    if(arg_COVERAGE)
        vexo_target_coverage(${name})
    endif()
endfunction()
