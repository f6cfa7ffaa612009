# The reference and the static site. Sourced by ./dev.
# shellcheck shell=bash

site=build/docs/site

# A public name without its comment is an error.
build_docs() { /usr/bin/python3 -B scripts/site.py "$site"; }
