# The reference and the static site. Sourced by ./dev.
# shellcheck shell=bash

doxygen_output=build/docs/doxygen
site=build/docs/site

# A public name without its comment, and a comment that Doxygen does not understand, are errors: docs/site/Doxyfile.
build_docs() {
    rm -rf "$doxygen_output"
    mkdir -p "$doxygen_output"
    quietly "Reading the public headers" doxygen docs/site/Doxyfile
    /usr/bin/python3 scripts/site.py "$doxygen_output/xml" "$site"
}
