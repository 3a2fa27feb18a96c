# The tree-sitter grammars and runtime, compiled into the static library `brenloc_grammars`.
#
# The sources come from the pinned npm packages in grammars/ (installed by scripts/setup). They are
# third-party C code: compiled in a scope of their own with fixed flags (-O2, no sanitizers, no debug
# information, no warnings), so that every build configuration produces the same compiler command and
# ccache shares the objects between them.
#
# BRENLOC_TREE_SITTER_RUNTIME selects the runtime:
#   vendored  the C source shipped in the npm package `tree-sitter` (grammar ABI 13-15), the default
#   system    Debian's libtree-sitter-dev (grammar ABI 13-14), kept for side-by-side measurements
set(BRENLOC_TREE_SITTER_RUNTIME "vendored" CACHE STRING "tree-sitter runtime: vendored or system")
set_property(CACHE BRENLOC_TREE_SITTER_RUNTIME PROPERTY STRINGS vendored system)

set(BRENLOC_GRAMMARS_DIR ${CMAKE_CURRENT_LIST_DIR}/../grammars/node_modules)
cmake_path(NORMAL_PATH BRENLOC_GRAMMARS_DIR)
if(NOT EXISTS ${BRENLOC_GRAMMARS_DIR}/tree-sitter-cpp/src/parser.c
   OR NOT EXISTS ${BRENLOC_GRAMMARS_DIR}/tree-sitter/vendor/tree-sitter/lib/src/lib.c)
  message(FATAL_ERROR
    "The tree-sitter grammar sources are missing (${BRENLOC_GRAMMARS_DIR}): run scripts/setup")
endif()

add_subdirectory(${CMAKE_CURRENT_LIST_DIR}/grammars ${CMAKE_BINARY_DIR}/grammars)
