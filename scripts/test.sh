#!/usr/bin/env bash
# Quick start, the tests: builds Dravelin with every test suite and runs them all with CTest.
# Set DV_SANITIZE=1 for an AddressSanitizer + UndefinedBehaviorSanitizer build (in build-asan).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
dir=build
options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DDV_BUILD_TESTS=ON -DDV_WERROR=ON)
if [[ "${DV_SANITIZE:-0}" == 1 ]]; then
    dir=build-asan
    options=(-DCMAKE_BUILD_TYPE=Debug -DDV_BUILD_TESTS=ON -DDV_WERROR=ON -DDV_SANITIZE=ON)
fi
cmake -S . -B "$dir" -G Ninja "${options[@]}" >/dev/null
cmake --build "$dir"
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)"
