#!/usr/bin/env bash
# Installs the pinned system packages, fetches the pinned npm packages (through
# the CMake configure step) and builds everything into BUILD_DIR (default build/).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}

bash "$root/scripts/install_system_deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"
