# Instrumented builds. Directory scope, because library and programs must be instrumented alike.
set(ERRORHANDLERDLL_SANITIZER "" CACHE STRING "Value for -fsanitize=, for example address,undefined or thread")
option(ERRORHANDLERDLL_COVERAGE "Count the executed lines" OFF)

if(ERRORHANDLERDLL_SANITIZER)
    add_compile_options(-fsanitize=${ERRORHANDLERDLL_SANITIZER} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${ERRORHANDLERDLL_SANITIZER})
    # Lines are all that a report shows. With the places of variables some tests take twice as long to compile.
    add_compile_options(-g1)
    # The tests of crashes damage objects, their classes included; a dump must survive that, this check does not.
    add_compile_options(-fno-sanitize=vptr)
endif()

if(ERRORHANDLERDLL_COVERAGE)
    add_compile_options(--coverage)
    add_link_options(--coverage)
endif()
