# Compiler and linker settings of our own targets; consumers of the package get none of them.

find_package(Threads REQUIRED)

# Programs get a random address, too, whatever the compiler's own default is.
include(CheckPIESupported)
check_pie_supported(LANGUAGES C CXX)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

add_library(qxv_options INTERFACE)
target_compile_options(qxv_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wcast-align -Wformat=2 -Wundef -Wunused -Wvla
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast>
    $<$<CXX_COMPILER_ID:GNU>:-Wlogical-op>
    $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wduplicated-cond -Wduplicated-branches>
    $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety -Wreserved-identifier>
    $<$<BOOL:${QXV_WERROR}>:-Werror>)
target_link_libraries(qxv_options INTERFACE Threads::Threads)

if(QXV_SANITIZE)
    # The sanitizers bring checks of their own, with which the hardening below does not mix.
    target_compile_options(qxv_options INTERFACE
        # Reports name functions and lines; more takes long to write.
        -fsanitize=${QXV_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g1
        # With them g++ 12 warns of its own <regex>, wrongly.
        $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-maybe-uninitialized>)
    target_link_options(qxv_options INTERFACE -fsanitize=${QXV_SANITIZE})
else()
    target_compile_options(qxv_options INTERFACE
        -fstack-protector-strong $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
    target_link_options(qxv_options INTERFACE
        LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack LINKER:--no-undefined)
endif()

# What both libraries have in common: only marked symbols are exported.
function(qxv_library target)
    set_target_properties(${target} PROPERTIES
        C_VISIBILITY_PRESET hidden
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        INSTALL_RPATH $ORIGIN)
    target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:qxv_options>)
endfunction()
