#!/usr/bin/env bash
# Peak resident memory of the daemon while it takes a 100 MB upload (raw, and as
# base64 in JSON) and serves a 100 MB download, each on a fresh daemon:
# (peak RSS - idle RSS) / body size for uploads, peak - idle in MB for the
# download. Targets: raw upload <= 1.3, JSON upload <= 2.5, download <= 16 MB.
set -euo pipefail
source "$(dirname "$0")/common.sh"

size_mb=${SIZE_MB:-100}
bytes=$((size_mb * 1024 * 1024))

build_release

# Text without NUL bytes, quotes or backslashes, so it travels both ways.
head -c $((bytes / 4 * 3)) /dev/urandom | base64 -w 0 | head -c "$bytes" >"$work/body.txt"
# The JSON form carries the file as base64, as binary uploads do.
{ printf '{"encoding":"base64","data":"'; base64 -w 0 "$work/body.txt"; printf '"}'; } >"$work/body.json"

rss_kb() { awk -v key="$2:" '$1 == key {print $2}' "/proc/$1/status"; }

# measure <label> <curl args…>: a fresh daemon, idle RSS, the transfer, peak RSS.
measure() {
  local label=$1; shift
  local port; port=$(free_port)
  rm -rf "$work/storage"
  mkdir -p "$work/storage/tenants/default"
  cp "$work/body.txt" "$work/storage/tenants/default/big.txt"
  start_datad "$port"
  local pid=${pids[-1]}
  sleep 0.3
  local idle; idle=$(rss_kb "$pid" VmRSS)
  curl -sf -o /dev/null "$@" "http://127.0.0.1:$port/api/v1/storage/default/${label}"
  local peak; peak=$(rss_kb "$pid" VmHWM)
  kill "$pid"; wait "$pid" 2>/dev/null || true
  echo $((peak - idle))
}

raw_kb=$(measure up.txt -X PUT --data-binary "@$work/body.txt")
json_kb=$(measure up.json -X PUT -H 'Content-Type: application/json' --data-binary "@$work/body.json")
down_kb=$(measure big.txt)

body_kb=$((bytes / 1024))
printf 'raw upload of %d MB:   peak - idle = %6d MB  ratio %s (target <= 1.3)\n' \
  "$size_mb" $((raw_kb / 1024)) "$(ratio "$raw_kb" "$body_kb")"
printf 'base64 JSON upload of %d MB: peak - idle = %6d MB  ratio %s (target <= 2.5)\n' \
  "$size_mb" $((json_kb / 1024)) "$(ratio "$json_kb" "$body_kb")"
printf 'download of %d MB:     peak - idle = %6d MB  (target <= 16)\n' "$size_mb" $((down_kb / 1024))
