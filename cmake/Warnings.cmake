# corvane_warnings: an interface target that every target of ours links to get the warning set.
add_library(corvane_warnings INTERFACE)
target_compile_options(corvane_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2
    -Wnon-virtual-dtor -Wold-style-cast -Wcast-align)
if(CORVANE_WERROR)
    target_compile_options(corvane_warnings INTERFACE -Werror)
endif()
