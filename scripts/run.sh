#!/usr/bin/env bash
# Quick start, the main job: builds Dravelin and runs a whole diagnostic session of the `dravelin`
# host program against the library's built-in simulated ECU. Extra arguments go to `dravelin scan`.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDV_BUILD_TESTS=OFF >/dev/null
cmake --build build --target dravelin_tool
./build/tools/dravelin scan "$@"
