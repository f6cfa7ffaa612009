#!/bin/sh
# arm64-emulator.sh [-0 NAME] PROGRAM ARGUMENT...: runs a program for AArch64, and lets it believe that it was
# called as NAME. Its libraries are those that cmake/arm64.cmake builds with.
#
# Given a prefix to find its loader below, as it usually is, the emulator would take every path from there that
# exists there, "/" first of all. So the loader is started by its own path, and told where the libraries are.

name=$1
if [ "$1" = -0 ]; then
    name=$2
    shift 2
fi
libraries=${0%/*}/../build/arm64/debian/sysroot/usr/lib/aarch64-linux-gnu
exec qemu-aarch64 "$libraries/ld-linux-aarch64.so.1" --argv0 "$name" \
    --library-path "${LD_LIBRARY_PATH:+$LD_LIBRARY_PATH:}$libraries" "$@"
