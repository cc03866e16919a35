# Writes build_info.h: date, time and revision of the sources. They come from SOURCE_DATE_EPOCH or
# from the last commit, so that two builds of one revision are the same, byte for byte.
function(kelo_generate_build_info target)
    set(revision "0000000")
    set(epoch "")
    find_package(Git QUIET)
    if(Git_FOUND AND EXISTS "${PROJECT_SOURCE_DIR}/.git")
        execute_process(COMMAND "${GIT_EXECUTABLE}" -C "${PROJECT_SOURCE_DIR}" rev-parse HEAD
                        OUTPUT_VARIABLE full OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failed)
        if(NOT failed)
            string(SUBSTRING "${full}" 0 7 revision)
            execute_process(COMMAND "${GIT_EXECUTABLE}" -C "${PROJECT_SOURCE_DIR}" log -1 --format=%ct
                            OUTPUT_VARIABLE epoch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
        endif()
        # A new commit must be noticed by the next build.
        if(EXISTS "${PROJECT_SOURCE_DIR}/.git/logs/HEAD")
            set_property(DIRECTORY "${PROJECT_SOURCE_DIR}" APPEND PROPERTY
                         CMAKE_CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/.git/logs/HEAD")
        endif()
    endif()
    if(DEFINED ENV{SOURCE_DATE_EPOCH})
        set(epoch "$ENV{SOURCE_DATE_EPOCH}")
    endif()
    if(NOT epoch MATCHES "^[0-9]+$")
        set(epoch 0)
    endif()
    set(ENV{SOURCE_DATE_EPOCH} "${epoch}")
    # string(TIMESTAMP) takes SOURCE_DATE_EPOCH for "now".
    string(TIMESTAMP KELO_BUILD_YEAR "%Y" UTC)
    string(TIMESTAMP KELO_BUILD_MONTH "%m" UTC)
    string(TIMESTAMP KELO_BUILD_DAY "%d" UTC)
    string(TIMESTAMP KELO_BUILD_TIME "%H:%M:%S" UTC)
    # "08" would be an octal number in C++.
    math(EXPR KELO_BUILD_MONTH "1${KELO_BUILD_MONTH} - 100")
    math(EXPR KELO_BUILD_DAY "1${KELO_BUILD_DAY} - 100")
    set(KELO_BUILD_REVISION "${revision}")
    configure_file("${PROJECT_SOURCE_DIR}/cmake/build_info.h.in"
                   "${CMAKE_CURRENT_BINARY_DIR}/generated/build_info.h" @ONLY)
    target_include_directories(${target} PRIVATE "${CMAKE_CURRENT_BINARY_DIR}/generated")
endfunction()
