#!/usr/bin/env bash
# Installs, from Debian's packages, whatever the build needs and the machine
# lacks. A no-op when everything is present. Extra package names may be given
# as arguments (the test command adds the ones only its tests need).
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  clang libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libutfcpp-dev libjsoncpp-dev libminizip-dev zlib1g-dev zip unzip python3
  libboost-dev libboost-program-options-dev libssl-dev
  "$@"
)

missing=()
# Node.js and npm (the browser client and its tests): Debian's, where the
# commands are not there already (another Node.js may provide both).
command -v node >/dev/null || missing+=(nodejs)
command -v npm >/dev/null || missing+=(npm)
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if ((${#missing[@]} == 0)); then
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
sudo=""
if [[ $(id -u) -ne 0 ]]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
