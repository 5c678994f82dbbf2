# Instrumented builds. Directory scope, because library and programs must be instrumented alike.
set(ERRORHANDLERDLL_SANITIZER "" CACHE STRING "Value for -fsanitize=, for example address,undefined or thread")
option(ERRORHANDLERDLL_COVERAGE "Count the executed lines" OFF)

if(ERRORHANDLERDLL_SANITIZER)
    add_compile_options(-fsanitize=${ERRORHANDLERDLL_SANITIZER} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${ERRORHANDLERDLL_SANITIZER})
endif()

if(ERRORHANDLERDLL_COVERAGE)
    add_compile_options(--coverage)
    add_link_options(--coverage)
endif()
