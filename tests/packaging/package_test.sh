#!/usr/bin/env bash
# Installs the build folder into a fresh prefix and packs it as a .deb, and
# checks that each holds exactly what it should and that the program runs from
# both; that the example configuration names every key the daemon reads and
# starts as shipped (API keys and TLS); that the unit passes systemd-analyze;
# and that lintian finds no error in the package.
# Run by ctest, with VOSTRA_BUILD_DIR, VOSTRA_SOURCE_DIR, VOSTRA_VERSION and
# VOSTRA_MAN_PAGE (ON when the build made the manual page). Exits 77 (skipped)
# when VOSTRA_SKIP_PACKAGING gives a reason.
set -euo pipefail

build=${VOSTRA_BUILD_DIR:?}
source=${VOSTRA_SOURCE_DIR:?}
version=${VOSTRA_VERSION:?}
if [ -n "${VOSTRA_SKIP_PACKAGING:-}" ]; then
  echo "Skipped: $VOSTRA_SKIP_PACKAGING"
  exit 77
fi
man_page=false
[ "${VOSTRA_MAN_PAGE:-OFF}" = ON ] && man_page=true

work=$(mktemp -d "${TMPDIR:-/tmp}/vostra-package-test.XXXXXX")
daemon_pid=""
cleanup() {
  if [ -n "$daemon_pid" ]; then
    kill "$daemon_pid" 2>/dev/null || true
    wait "$daemon_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  exit 1
}
step() { echo "--- $*"; }

# same_lines NAME EXPECTED ACTUAL: both sorted lists of lines.
same_lines() {
  if [ "$2" != "$3" ]; then
    diff <(echo "$2") <(echo "$3") >&2 || true
    fail "$1 (< expected, > found)"
  fi
}

for tool in cmake cpack dpkg-deb lintian openssl curl python3; do
  command -v "$tool" >/dev/null || fail "$tool is missing (scripts/install-deps.sh test installs it)"
done

step "cmake --install into a fresh prefix"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail "cmake --install"; }
expected="./bin/vostra-datad
./etc/vostra/datad.json
./etc/vostra/datad.json.README
./lib/systemd/system/vostra-datad.service"
$man_page && expected+=$'\n'"./share/man/man8/vostra-datad.8"
same_lines "installed files" "$(sort <<<"$expected")" "$(cd "$prefix" && find . ! -type d | sort)"
[ "$("$prefix/bin/vostra-datad" --version)" = "vostra-datad $version" ] || fail "installed --version"
if $man_page; then
  grep -q '^\.SH FILES' "$prefix/share/man/man8/vostra-datad.8" || fail "the manual page lacks its FILES section"
  ! grep -q "$build" "$prefix/share/man/man8/vostra-datad.8" || fail "the manual page names the build folder"
fi

step "the example configuration"
config=$prefix/etc/vostra/datad.json
# Every key the daemon reads, and no other, is in the example and its notes.
read_keys=$(grep -o 'readField(json, "[a-z0-9_]*"' "$source/daemon/data_daemon_config.cpp" | cut -d'"' -f2 | sort)
example_keys=$(python3 -c 'import json, sys; print("\n".join(sorted(json.load(open(sys.argv[1])))))' "$config")
noted_keys=$(grep -v '^#' "$config.README" | awk 'NF { print $1 }' | sort)
same_lines "keys of datad.json against those the daemon reads" "$read_keys" "$example_keys"
same_lines "keys of datad.json.README against those the daemon reads" "$read_keys" "$noted_keys"
# A key of the wrong JSON type would stop start-up.
"$prefix/bin/vostra-datad" --config "$config" --version >/dev/null || fail "the example configuration is refused"

# The example as shipped, with its folders moved into the test's: it must
# start in "keys" mode over HTTPS with an admin key file and a self-signed
# pair like the ones the package makes.
etc=$work/etc state=$work/state
mkdir -p "$etc" "$state"
port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
sed -e "s|/etc/vostra|$etc|g" -e "s|/var/lib/vostra|$state|g" \
    -e "s|\"port\": 8892|\"port\": $port|" -e 's|"bind_address": "0.0.0.0"|"bind_address": "127.0.0.1"|' \
    "$config" >"$etc/datad.json"
grep -q "\"port\": $port" "$etc/datad.json" || fail "the example has no \"port\": 8892 line to point elsewhere"
admin_key=$(od -An -N16 -tx1 /dev/urandom | tr -d ' \n')
printf '# made by the test\n%s\n' "$admin_key" >"$etc/admin_keys"
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 1 -subj /CN=localhost \
  -keyout "$etc/key.pem" -out "$etc/cert.pem" >/dev/null 2>&1 || fail "openssl could not make a certificate"
HOME=$state "$prefix/bin/vostra-datad" --config "$etc/datad.json" >"$work/daemon.log" 2>&1 &
daemon_pid=$!
url=https://127.0.0.1:$port
for _ in $(seq 100); do
  curl -sk --max-time 2 -o /dev/null "$url/health" && break
  kill -0 "$daemon_pid" 2>/dev/null || { cat "$work/daemon.log"; fail "the example configuration did not start"; }
  sleep 0.1
done
status() { curl -sk --max-time 5 -o /dev/null -w '%{http_code}' "$@"; }
[ "$(status "$url/health")" = 200 ] || { cat "$work/daemon.log"; fail "no HTTPS health answer"; }
[ "$(status "$url/api/v1/tenants")" = 401 ] || fail "a request without a key was not refused"
[ "$(status -H "X-API-Key: $admin_key" "$url/api/v1/tenants")" = 200 ] || fail "the admin key file was not honoured"
kill "$daemon_pid"
wait "$daemon_pid" || fail "the daemon did not stop cleanly on SIGTERM"
daemon_pid=""

step "systemd-analyze verify"
if command -v systemd-analyze >/dev/null; then
  # verify wants ExecStart's program to exist: point it into the prefix.
  mkdir -p "$work/unit"
  unit=$work/unit/vostra-datad.service
  sed "s|^ExecStart=/usr/bin/vostra-datad |ExecStart=$prefix/bin/vostra-datad |" \
    "$prefix/lib/systemd/system/vostra-datad.service" >"$unit"
  grep -q "^ExecStart=$prefix/" "$unit" || fail "the unit's ExecStart is not /usr/bin/vostra-datad"
  man_check=--man=no
  $man_page && man_check=--man=yes
  if ! MANPATH=$prefix/share/man systemd-analyze verify "$man_check" "$unit" >"$work/verify.log" 2>&1 \
      || [ -s "$work/verify.log" ]; then
    cat "$work/verify.log" >&2
    fail "systemd-analyze verify"
  fi
else
  echo "systemd-analyze is missing: the unit is not verified"
fi

step "cpack -G DEB"
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work/deb" >"$work/cpack.log" 2>&1 \
  || { cat "$work/cpack.log"; fail "cpack"; }
debs=("$work"/deb/vostra-datad_"$version"-*.deb)
{ [ ${#debs[@]} = 1 ] && [ -f "${debs[0]}" ]; } || fail "cpack made no vostra-datad_$version-*.deb"
deb=${debs[0]}

expected="./etc/vostra/datad.json
./etc/vostra/datad.json.README
./lib/systemd/system/vostra-datad.service
./usr/bin/vostra-datad
./usr/share/doc/vostra-datad/changelog.Debian.gz
./usr/share/doc/vostra-datad/copyright
./usr/share/lintian/overrides/vostra-datad"
$man_page && expected+=$'\n'"./usr/share/man/man8/vostra-datad.8.gz"
same_lines "files of the package" "$(sort <<<"$expected")" \
  "$(dpkg-deb --fsys-tarfile "$deb" | tar -t | grep -v '/$' | sort)"
mkdir "$work/root"
dpkg-deb -x "$deb" "$work/root"
[ "$("$work/root/usr/bin/vostra-datad" --version)" = "vostra-datad $version" ] || fail "packaged --version"

info=$(dpkg-deb -I "$deb")
depends=$(sed -n 's/^ Depends: //p' <<<"$info")
for package in adduser openssl libc6 libcurl4 libsqlite3-0 libssl3 libpq5 libmariadb3; do
  grep -Eq "(^|, )$package( |,|$)" <<<"$depends" || fail "Depends lacks $package: $depends"
done
grep -q '^ Recommends: .*bubblewrap' <<<"$info" || fail "bubblewrap is not recommended"
same_lines "conffiles" "/etc/vostra/datad.json
/etc/vostra/datad.json.README" "$(dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles | sort)"

step "lintian"
# Exit status 1 means tags were found (judged below); above that, no run.
lintian_status=0
lintian --tag-display-limit 0 "$deb" >"$work/lintian.log" 2>&1 || lintian_status=$?
cat "$work/lintian.log"
[ "$lintian_status" -le 1 ] || fail "lintian could not check the package"
! grep -q '^E: ' "$work/lintian.log" || fail "lintian reports errors"

echo "PASS"
