# Per-target warning and sanitizer settings: nothing here touches global flags.

# Warnings are errors in CI (scripts/test-all.sh turns this on); a user's build with another
# compiler version still builds and shows them.
option(VEXO_WERROR "Treat compiler warnings in the project's own code as errors" OFF)

# Third-party headers are not ours to fix: they come in through imported targets, whose
# include directories CMake passes with -isystem, so these warnings cover our code only.
function(vexo_target_warnings target)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wshadow -Wformat=2 -Wcast-align -Wnull-dereference
        $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual>)
    if(VEXO_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()

function(vexo_target_sanitize target)
    if(VEXO_SANITIZE)
        set(checks ${VEXO_SANITIZE})
        # gcc leaves a double cast to an integer it cannot hold out of "undefined"; numbers
        # from JSON are doubles, so that check goes with it.
        if(VEXO_SANITIZE MATCHES "undefined")
            string(APPEND checks ",float-cast-overflow")
        endif()
        target_compile_options(${target} PRIVATE -fsanitize=${checks} -fno-omit-frame-pointer
            -fno-sanitize-recover=all)
        target_link_options(${target} PUBLIC -fsanitize=${checks})
    endif()
endfunction()

# Line coverage with gcc's --coverage, for targets whose coverage is measured (the module).
# The link option is public so that every executable linking the target gets libgcov.
function(vexo_target_coverage target)
    if(VEXO_COVERAGE)
        target_compile_options(${target} PRIVATE --coverage -O0)
        target_link_options(${target} PUBLIC --coverage)
    endif()
endfunction()
