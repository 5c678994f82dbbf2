# Warnings for everything in this tree. Whether they are errors is CMAKE_COMPILE_WARNING_AS_ERROR, which the CI presets set.
# Directory scope: the options reach all our targets and none of a host's.
add_compile_options(
    -Wall
    -Wextra
    -Wpedantic
    -Wconversion
    -Wshadow
    -Wformat=2
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>)
