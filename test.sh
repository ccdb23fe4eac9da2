#!/usr/bin/env bash
# Sets everything up and runs every test: unit and end-to-end tests, on the release build and on a build by the other
# compiler with AddressSanitizer and UndefinedBehaviorSanitizer. Safe to run again.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

scripts/install-dependencies
failed=no
for preset in release asan; do
    echo "== $preset: building"
    cmake --preset "$preset" >build-log.tmp 2>&1 || { cat build-log.tmp >&2; rm -f build-log.tmp; exit 1; }
    rm -f build-log.tmp
    cmake --build --preset "$preset"
    echo "== $preset: testing"
    export QV_RESULTS=$PWD/build/$preset/results
    rm -rf "$QV_RESULTS"
    mkdir -p "$QV_RESULTS"
    GTEST_OUTPUT="xml:$QV_RESULTS/" ctest --preset "$preset" --parallel "$(nproc)" || failed=yes
done
scripts/summary build/release/results build/asan/results || failed=yes
[ "$failed" = no ]
