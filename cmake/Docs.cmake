# The target `docs`: the API reference, from the comments of the public headers, in docs/html of the build.
# An undocumented public name fails it.

find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
    return()
endif()
configure_file(docs/Doxyfile.in ${PROJECT_BINARY_DIR}/docs/Doxyfile @ONLY)
add_custom_target(docs
    COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/docs/Doxyfile
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    COMMENT "API reference: docs/html/index.html" VERBATIM)
