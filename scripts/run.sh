#!/usr/bin/env bash
# Installs what the project needs, builds the pkgdlv tool (Release) and runs
# its main job on the embedded defaults: a real download of a demonstration
# package from nginx on 127.0.0.1, its history and check, and the repair of a
# damaged block (scripts/download-demo.sh). scripts/demo.sh is a shorter tour
# of the tool's other commands.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build-release --target pkgdlv_cli -j "$(nproc)"

export PATH="$PWD/build-release:$PATH"
exec bash scripts/download-demo.sh
