# Sanitizers and coverage apply to everything that is built, so that every object agrees.
set(KELO_SANITIZE "" CACHE STRING "Comma separated list for -fsanitize=, for example address,undefined")
option(KELO_COVERAGE "Count executed lines (gcov)" OFF)

if(KELO_SANITIZE)
    add_compile_options(-fsanitize=${KELO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${KELO_SANITIZE})
    if(KELO_SANITIZE MATCHES "undefined")
        # The vptr check opens a pipe; tests that use up every descriptor would fail by it.
        add_compile_options(-fno-sanitize=vptr)
    endif()
endif()
if(KELO_COVERAGE)
    add_compile_options(--coverage -fprofile-update=atomic)
    add_link_options(--coverage)
endif()

# For code that is not what the sanitizers are to test, a folder's or a target's: compiling it
# optimised and instrumented takes longer than it saves when it runs.
macro(kelo_compile_quickly_with_sanitizers)
    if(KELO_SANITIZE AND ${ARGC} EQUAL 0)
        add_compile_options(-O0)
    elseif(KELO_SANITIZE)
        target_compile_options(${ARGV0} PRIVATE -O0)
    endif()
endmacro()
