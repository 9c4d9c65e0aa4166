#!/usr/bin/env bash
# Installs the Debian packages the product builds and tests with. Safe to run again.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config ccache
    clang libclang-rt-14-dev clang-format
    liblog4cplus-dev libcurl4-openssl-dev nlohmann-json3-dev libssl-dev libtinyxml2-dev libsqlite3-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    minisign openssl python3 procps
)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
echo "installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
