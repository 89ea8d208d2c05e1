#!/usr/bin/env bash
# Installs the Debian packages the project needs and, for the tests, the npm
# test tools of tests/tools; does nothing when they are all present.
# Usage: install-deps.sh build|test
set -euo pipefail

build_packages=(
  build-essential cmake ninja-build pkg-config ccache git curl
  nlohmann-json3-dev libcurl4-openssl-dev libsqlite3-dev libssl-dev
  libpq-dev libmariadb-dev
)
test_packages=(
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  sqlite3 wrk nginx
  postgresql postgresql-client mariadb-server mariadb-client
  openssl bubblewrap chromium python3-boto3 python3-prometheus-client libnfs-utils libnfs-dev nfs-ganesha nfs-ganesha-vfs rpcbind
  help2man lintian dpkg-dev systemd
)

case "${1:-build}" in
  build) wanted=("${build_packages[@]}") ;;
  test) wanted=("${build_packages[@]}" "${test_packages[@]}") ;;
  *) echo "usage: $0 build|test" >&2; exit 2 ;;
esac

missing=()
for package in "${wanted[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' \
    || missing+=("$package")
done
# Node.js may come from elsewhere than Debian (with npm inside); only a
# machine without npm gets Debian's.
if [ "${1:-build}" = test ] && ! command -v npm >/dev/null; then
  missing+=(nodejs npm)
fi

# The npm test tools, from the lock file, once per change of it.
install_test_tools() {
  [ "${1:-build}" = test ] || return 0
  local tools
  tools="$(cd "$(dirname "$0")/.." && pwd)/tests/tools"
  [ "$tools/node_modules/.package-lock.json" -nt "$tools/package-lock.json" ] && return 0
  echo "Installing the npm test tools in $tools"
  (cd "$tools" && npm ci --no-audit --no-fund --loglevel=error) || return 1
  touch "$tools/node_modules/.package-lock.json"
}

if [ ${#missing[@]} -eq 0 ]; then
  install_test_tools "${1:-build}"
  exit
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "Run as root to install: ${missing[*]}" >&2; exit 1; }
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
# Server packages must not start machine-wide services: the tests run
# private instances of their own.
if [ ! -e /usr/sbin/policy-rc.d ]; then
  printf '#!/bin/sh\nexit 101\n' | $sudo tee /usr/sbin/policy-rc.d >/dev/null
  $sudo chmod 755 /usr/sbin/policy-rc.d
  trap '$sudo rm -f /usr/sbin/policy-rc.d' EXIT
fi
echo "Installing: ${missing[*]}"
# Try the cached package lists first; refresh them only when that fails.
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}" \
  || { $sudo apt-get update -q && $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"; }
install_test_tools "${1:-build}"
