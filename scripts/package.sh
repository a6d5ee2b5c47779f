#!/usr/bin/env bash
# Builds the Debian package from the default build (installs what is missing
# first) and prints its path:
#   build/default/package/quintaris-service_<version>-1_<arch>.deb
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh dpkg-dev
cmake --preset default >/dev/null
cmake --build --preset default
cpack --config build/default/CPackConfig.cmake -B build/default/package >/dev/null
ls "$PWD"/build/default/package/quintaris-service_*.deb
