#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and runs with.
# Only what is missing is installed; needs root (or sudo) when something is.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config python3 ccache
  libace-dev libsafec-dev libjsoncpp-dev libpugixml-dev
  libgtest-dev libgmock-dev libbenchmark-dev libprotobuf-dev protobuf-compiler
  clang clang-format libclang-rt-14-dev
  libsnmp-dev snmp snmpd snmptrapd smitools
  prometheus-snmp-exporter prometheus collectd-core monitoring-plugins-standard
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

# Packages that bring a service with them are installed for their programs:
# the tests run their own instances on loopback ports. Where systemd runs,
# the services the install just started are stopped and disabled again, so
# that the test command leaves no Prometheus, exporter, collectd or trap
# daemon listening on this machine.
declare -A SERVICE_OF=(
  [prometheus]=prometheus [prometheus-snmp-exporter]=prometheus-snmp-exporter
  [collectd-core]=collectd [snmptrapd]=snmptrapd
)
if [ -d /run/systemd/system ]; then
  for p in "${missing[@]}"; do
    unit="${SERVICE_OF[$p]:-}"
    if [ -n "$unit" ] && systemctl list-unit-files "$unit.service" >/dev/null 2>&1; then
      echo "Stopping and disabling $unit.service (installed for its programs; the tests start their own)"
      $SUDO systemctl disable --now "$unit.service" >/dev/null 2>&1 || true
    fi
  done
fi
