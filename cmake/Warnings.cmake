# Warnings for our own code; every one is an error with both compilers that are supported. Inside
# another project, with a compiler that nobody here has tried, a new warning must not end the build.
add_library(kelo_warnings INTERFACE)
target_compile_options(kelo_warnings INTERFACE
    -Wall -Wextra -Wpedantic $<$<BOOL:${PROJECT_IS_TOP_LEVEL}>:-Werror> -Wshadow -Wcast-qual -Wformat=2 -Wundef
    # Records are filled by naming the fields that differ from their defaults.
    $<$<COMPILE_LANGUAGE:CXX>:-Wno-missing-field-initializers>
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast>
    # g++ 12 reports overlapping copies inside std::string that cannot happen.
    $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-Wno-restrict>)
