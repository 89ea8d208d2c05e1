#!/usr/bin/env bash
# Throughput of 1 MiB text files through /api/v1/storage (filesystem backend):
# PUT, then GET of the files so stored, beside nginx serving the very same
# files from disk (and taking PUTs through its WebDAV module), both closing
# every connection. wrk with 4 connections. Prints MiB/s for each and the
# ratios daemon/nginx (target: GET 0.7 or better).
# Environment: DURATION, CONNECTIONS, DATAD (see below).
set -euo pipefail
source "$(dirname "$0")/common.sh"
duration=${DURATION:-10s}
connections=${CONNECTIONS:-4}
files=16

# DATAD=<binary> measures an existing build instead of making a Release one.
if [ -n "${DATAD:-}" ]; then datad=$DATAD; else build_release; fi
datad_port=$(free_port)
start_datad "$datad_port"

nginx_port=$(free_port)
mkdir -p "$work/nginx/put" "$work/nginx/body"
stored="$work/storage/tenants/default/bench"
# nginx workers must read the daemon's files and write their own: run them as
# this user (honoured when started as root), and let others into the folder.
chmod 755 "$work"
start_nginx "$nginx_port" "  sendfile on;
  client_max_body_size 2m;
  client_body_temp_path $work/nginx/body;" "    location /get/ { alias $stored/; default_type text/plain; }
    location /put/ { alias $work/nginx/put/; dav_methods PUT; create_full_put_path on; }"

# request_lua <method> <path prefix>: cycles over the files; PUTs carry 1 MiB
# of text (16384 lines of 64 bytes).
request_lua() {
  cat <<LUA
local line = string.rep("x", 63) .. "\n"
local body = "$1" == "PUT" and string.rep(line, 16384) or nil
local n = 0
request = function()
  n = n % $files + 1
  return wrk.format("$1", "$2" .. n .. ".txt", nil, body)
end
LUA
}
request_lua PUT /api/v1/storage/default/bench/f >"$work/datad_put.lua"
request_lua GET /api/v1/storage/default/bench/f >"$work/datad_get.lua"
request_lua PUT /put/f >"$work/nginx_put.lua"
request_lua GET /get/f >"$work/nginx_get.lua"

run() { wrk_rate -t2 -c"$connections" -d"$duration" -s "$work/$1.lua" "http://127.0.0.1:$2"; }
read -r datad_put datad_put_errors < <(run datad_put "$datad_port")
read -r datad_get datad_get_errors < <(run datad_get "$datad_port")
read -r nginx_put nginx_put_errors < <(run nginx_put "$nginx_port")
read -r nginx_get nginx_get_errors < <(run nginx_get "$nginx_port")

# Each request moves one MiB, so requests per second are MiB per second.
printf 'vostra-datad PUT 1 MiB: %8.1f MiB/s  socket errors: %s\n' "$datad_put" "$datad_put_errors"
printf 'nginx (DAV) PUT 1 MiB:  %8.1f MiB/s  socket errors: %s\n' "$nginx_put" "$nginx_put_errors"
printf 'vostra-datad GET 1 MiB: %8.1f MiB/s  socket errors: %s\n' "$datad_get" "$datad_get_errors"
printf 'nginx GET 1 MiB:        %8.1f MiB/s  socket errors: %s\n' "$nginx_get" "$nginx_get_errors"
echo "ratio PUT daemon/nginx: $(ratio "$datad_put" "$nginx_put")"
echo "ratio GET daemon/nginx: $(ratio "$datad_get" "$nginx_get") (target >= 0.70)"
grep -q 'Non-2xx' "$work/wrk.log" && echo "WARNING: non-2xx answers seen (see wrk output)" || true
