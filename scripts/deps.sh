#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and runs with.
# Only what is missing is installed; needs root (or sudo) when something is.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config python3
  libace-dev libsafec-dev libjsoncpp-dev libpugixml-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang clang-format libclang-rt-14-dev
  libsnmp-dev snmp snmpd smitools
  python3-pysnmp4 valgrind groff-base man-db
  dpkg-dev debhelper fakeroot lintian git
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
