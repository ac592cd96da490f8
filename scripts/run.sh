#!/usr/bin/env bash
# Installs what the project needs, builds the pkgdlv tool (Release) and runs
# its main job on the embedded defaults. Until the engine downloads packages,
# the main job is a short demonstration of what the tool does so far.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build-release --target pkgdlv_cli -j "$(nproc)"

export PATH="$PWD/build-release:$PATH"
exec bash scripts/demo.sh
