# No path of the machine that built it gets into an optimised binary, so that two builds of one
# commit in different folders are the same, byte for byte. Debug builds keep the paths by which a
# debugger finds the sources.
add_compile_options(
    "$<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_BINARY_DIR}=build>"
    "$<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>")
