# With CORVANE_SANITIZE=ON every target is built and linked with AddressSanitizer and
# UndefinedBehaviorSanitizer, after checking that the compiler supports them.
if(CORVANE_SANITIZE)
    include(CheckCXXSourceCompiles)
    set(_corvane_sanitize_flags -fsanitize=address,undefined -fno-omit-frame-pointer
                                -fno-sanitize-recover=all)
    set(CMAKE_REQUIRED_FLAGS "-fsanitize=address,undefined")
    set(CMAKE_REQUIRED_LINK_OPTIONS "-fsanitize=address,undefined")
    check_cxx_source_compiles("int main() { return 0; }" CORVANE_HAVE_SANITIZERS)
    unset(CMAKE_REQUIRED_FLAGS)
    unset(CMAKE_REQUIRED_LINK_OPTIONS)
    if(NOT CORVANE_HAVE_SANITIZERS)
        message(FATAL_ERROR "CORVANE_SANITIZE=ON, but ${CMAKE_CXX_COMPILER} cannot build with "
                            "-fsanitize=address,undefined")
    endif()
    add_compile_options(${_corvane_sanitize_flags})
    add_link_options(-fsanitize=address,undefined)
endif()
