#!/usr/bin/env bash
# Builds and runs the demonstration: the module on the test kit with a simulated camera.
# Installs what is missing first (set VEXO_SKIP_INSTALL=1 to skip).
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "${VEXO_SKIP_INSTALL:-0}" != 1 ]; then
    scripts/install-deps.sh
fi
cmake -S . -B build/demo -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXO_BUILD_TESTS=OFF -DVEXO_BUILD_DEMO=ON >/dev/null
cmake --build build/demo --target vexo_demo -j2
build/demo/demo/vexo_demo demo-output
