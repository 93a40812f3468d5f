# Installation and the Debian package. Included at the end of the top-level
# CMakeLists.txt, so every target exists here.

target_compile_definitions(tse-check PRIVATE TSE_CHECK_VERSION="${PROJECT_VERSION}")
