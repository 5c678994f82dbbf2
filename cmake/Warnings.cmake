# Warnings for everything in this tree. Directory scope: the options reach all our targets and none of a host's.
add_compile_options(
    -Wall
    -Wextra
    -Wpedantic
    -Wconversion
    -Wshadow
    -Wformat=2
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>)

# The presets make them errors, for the compilers that the tree is kept clean with: another one may know warnings that nobody has
# seen, which must not stop someone who only wants to build.
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL GNU OR CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 13)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL Clang OR CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 15)
        set(CMAKE_COMPILE_WARNING_AS_ERROR OFF)
    endif()
endif()
