#!/usr/bin/env bash
# Runs clang-tidy (.clang-tidy) over the library and tool sources with the build's
# compile_commands.json. Usage: scripts/tidy.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
# The win32 backend is checked by the MinGW build, not here (no Windows headers on Linux).
files=$(git ls-files 'frame/*.cpp' 'serial/*.cpp' 'kw1281/*.cpp' 'kwp2000/*.cpp' 'platform/*.cpp' \
    'bench/*.cpp' 'tools/*.cpp' | grep -v '^platform/win32/')
printf '%s\n' $files | xargs -P "$(nproc)" -n 4 clang-tidy -p "$build" --quiet --warnings-as-errors='*' 2>/dev/null
