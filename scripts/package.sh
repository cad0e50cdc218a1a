#!/usr/bin/env bash
# Builds the Debian packages (zerva-snmp-agent, zerva-array-sim, zerva-mibs)
# from this tree with dpkg-buildpackage, installing the build dependencies it
# lacks, and checks them with lintian: an error fails the build.
#
#   scripts/package.sh [OUTDIR]      the .deb files go to OUTDIR (default: dist/)
#
# The build runs on a copy of the files git knows (or would add), so the
# tree's own build directories are neither read nor touched.
set -euo pipefail
cd "$(dirname "$0")/.."
src="$(pwd)"
out="$(realpath -m "${1:-dist}")"

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
apt_install() {
  echo "Installing: $*"
  $SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$@"
}

# The packaging tools, then what debian/control's Build-Depends lists.
tools=()
for p in dpkg-dev debhelper fakeroot lintian git; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || tools+=("$p")
done
if [ ${#tools[@]} -gt 0 ]; then
  $SUDO apt-get update -qq
  apt_install "${tools[@]}"
fi
if ! unmet="$(dpkg-checkbuilddeps 2>&1)"; then
  # "dpkg-checkbuilddeps: error: Unmet build dependencies: a b (>= 1) c"
  mapfile -t wanted < <(echo "$unmet" | sed -n 's/.*Unmet build dependencies: //p' | sed 's/([^)]*)//g; s/|[^ ]*//g' | tr ' ' '\n' | sed '/^$/d')
  [ ${#wanted[@]} -gt 0 ] || { echo "$unmet" >&2; exit 1; }
  $SUDO apt-get update -qq
  apt_install "${wanted[@]}"
fi

version="$(dpkg-parsechangelog -S Version)"
work="$(mktemp -d "${TMPDIR:-/tmp}/zerva-package.XXXXXX")"
trap 'rm -rf "$work"' EXIT
tree="$work/zerva-snmp-$version"
mkdir -p "$tree"
# The files as they are in the tree (a tracked file deleted there is left out).
git ls-files -z --cached --others --exclude-standard --deduplicate |
  while IFS= read -r -d '' f; do if [ -e "$f" ]; then printf '%s\0' "$f"; fi; done |
  xargs -0 cp --parents -t "$tree"

echo "== dpkg-buildpackage (zerva-snmp $version)"
(cd "$tree" && DEB_BUILD_OPTIONS="parallel=$(nproc) ${DEB_BUILD_OPTIONS:-}" \
  dpkg-buildpackage -us -uc -b >"$work/build.log" 2>&1) || {
  tail -n 60 "$work/build.log" >&2
  echo "package.sh: dpkg-buildpackage failed" >&2
  exit 1
}

mkdir -p "$out"
# Only this build's packages: an earlier version's would be installed too.
rm -f "$out"/zerva-*.deb "$out"/zerva-*.ddeb "$out"/zerva-snmp_*.changes "$out"/zerva-snmp_*.buildinfo
arch="$(dpkg --print-architecture)"
changes="$work/zerva-snmp_${version}_${arch}.changes"
for f in $(sed -n '/^Files:/,/^[^ ]/p' "$changes" | awk 'NF == 5 { print $5 }'); do
  cp "$work/$f" "$out/"
done
cp "$changes" "$out/"

echo "== lintian"
# Every tag is printed; errors fail. The warnings kept are explained in
# docs/packaging.md.
lintian --fail-on error --info --display-level ">=info" "$changes" | tee "$out/lintian.txt"

echo "== packages in $out"
for deb in "$out"/*.deb; do
  printf '%8d bytes  %s\n' "$(stat -c %s "$deb")" "$(basename "$deb")"
done
