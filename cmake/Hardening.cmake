# What makes a mistake in memory harder to use, in optimised builds: checked copies, guarded stacks,
# tables that are read-only once the program runs, and marked targets of indirect jumps. Debug builds
# have the sanitizers instead. tests/checks/check_library.py looks for all of it in the built file.
option(KELO_HARDENING "Harden optimised builds" ON)

if(KELO_HARDENING AND NOT KELO_SANITIZE AND NOT KELO_COVERAGE)
    include(CheckCXXCompilerFlag)
    set(optimised "$<NOT:$<CONFIG:Debug>>")
    # Undefined first: packagers' flags may define it, and with another value.
    add_compile_options("$<${optimised}:-U_FORTIFY_SOURCE>" "$<${optimised}:-D_FORTIFY_SOURCE=2>"
                        "$<${optimised}:-fstack-protector-strong>")
    # Of x86 only.
    check_cxx_compiler_flag(-fcf-protection=full kelo_has_cf_protection)
    if(kelo_has_cf_protection)
        add_compile_options("$<${optimised}:-fcf-protection=full>")
    endif()
    add_link_options("$<${optimised}:LINKER:-z,relro>" "$<${optimised}:LINKER:-z,now>")
endif()
