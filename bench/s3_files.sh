#!/usr/bin/env bash
# 1 MiB files through /api/v1/storage on the S3 backend, against the same
# PUTs and GETs sent straight to the S3 server (the test run's server,
# tests/tools/s3_server.js) with curl's own Signature Version 4; both with
# one curl process, 4 transfers at a time. Prints MiB/s for each and the
# ratios daemon/direct (target: 0.7 or better). Then the peak memory of a
# fresh daemon taking a 100 MB upload and serving it back (`SIZE_MB`), as
# http_memory.sh measures it for the filesystem backend.
# Environment: COUNT (files per run, default 200), SIZE_MB.
set -euo pipefail
source "$(dirname "$0")/common.sh"
source "$root/scripts/test-servers.sh"
count=${COUNT:-200}
parallel=${PARALLEL:-4}
size_mb=${SIZE_MB:-100}

"$root/scripts/install-deps.sh" test >/dev/null
build_release
servers_dir="$work/servers"
mkdir -p "$servers_dir"
start_s3 bench >/dev/null
pids+=("$(cat "$servers_dir/s3/pid")")
endpoint="http://127.0.0.1:$VOSTRA_TEST_S3_PORT"
s3_args=(--storage-backend s3 --s3-endpoint "$endpoint" --s3-bucket bench
  --s3-access-key "$VOSTRA_TEST_S3_ACCESS_KEY" --s3-secret-key "$VOSTRA_TEST_S3_SECRET_KEY")

# Text: a raw body is cut at its first NUL byte (the daemon carries text;
# binary files travel base64-encoded in JSON).
head -c 786432 /dev/urandom | base64 -w 0 >"$work/1m.bin"
empty_hash=$(printf '' | sha256sum | cut -c1-64)
file_hash=$(sha256sum "$work/1m.bin" | cut -c1-64)

# transfers <config file>: runs them, prints MiB/s.
transfers() {
  local start end
  start=$(date +%s.%N)
  curl -sf --no-progress-meter --parallel --parallel-immediate --parallel-max "$parallel" -K "$1" >/dev/null
  end=$(date +%s.%N)
  awk -v n="$count" -v s="$start" -v e="$end" 'BEGIN { printf "%.1f", n / (e - s) }'
}

# config <put|get> <url prefix> [signed]: one curl config per run.
config() {
  local i
  if [ -n "${3:-}" ]; then
    printf 'aws-sigv4 = "aws:amz:us-east-1:s3"\nuser = "%s:%s"\n' \
      "$VOSTRA_TEST_S3_ACCESS_KEY" "$VOSTRA_TEST_S3_SECRET_KEY"
  fi
  for i in $(seq "$count"); do
    printf 'url = "%s%d.bin"\noutput = "/dev/null"\n' "$2" "$i"
    if [ "$1" = put ]; then
      printf 'upload-file = "%s"\n' "$work/1m.bin"
      [ -n "${3:-}" ] && printf 'header = "x-amz-content-sha256: %s"\n' "$file_hash"
    else
      [ -n "${3:-}" ] && printf 'header = "x-amz-content-sha256: %s"\n' "$empty_hash"
    fi
    [ "$i" -lt "$count" ] && printf 'next\n'
  done
  return 0
}

port=$(free_port)
start_datad "$port" "${s3_args[@]}"
config put "http://127.0.0.1:$port/api/v1/storage/default/bench/f" >"$work/datad_put.cfg"
config get "http://127.0.0.1:$port/api/v1/storage/default/bench/f" >"$work/datad_get.cfg"
config put "$endpoint/bench/direct/f" signed >"$work/direct_put.cfg"
config get "$endpoint/bench/direct/f" signed >"$work/direct_get.cfg"

direct_put=$(transfers "$work/direct_put.cfg")
datad_put=$(transfers "$work/datad_put.cfg")
direct_get=$(transfers "$work/direct_get.cfg")
datad_get=$(transfers "$work/datad_get.cfg")
printf '1 MiB PUT: daemon %8s MiB/s   direct %8s MiB/s   ratio %s (target >= 0.7)\n' \
  "$datad_put" "$direct_put" "$(ratio "$datad_put" "$direct_put")"
printf '1 MiB GET: daemon %8s MiB/s   direct %8s MiB/s   ratio %s (target >= 0.7)\n' \
  "$datad_get" "$direct_get" "$(ratio "$datad_get" "$direct_get")"
kill "${pids[-1]}"

# Memory: a fresh daemon, idle RSS, the transfer, peak RSS.
bytes=$((size_mb * 1024 * 1024))
head -c $((bytes / 4 * 3)) /dev/urandom | base64 -w 0 >"$work/big.bin"
rss_kb() { awk -v key="$2:" '$1 == key {print $2}' "/proc/$1/status"; }
measure() {
  local port pid idle
  port=$(free_port)
  start_datad "$port" "${s3_args[@]}"
  pid=${pids[-1]}
  sleep 0.3
  idle=$(rss_kb "$pid" VmRSS)
  curl -sf -o /dev/null "$@" "http://127.0.0.1:$port/api/v1/storage/default/big.bin"
  echo $(($(rss_kb "$pid" VmHWM) - idle))
  kill "$pid"
}
up_kb=$(measure -X PUT --data-binary "@$work/big.bin")
down_kb=$(measure)
printf 'upload of %d MB:   peak - idle = %6d MB  ratio %s (target <= 1.3)\n' \
  "$size_mb" $((up_kb / 1024)) "$(ratio "$up_kb" $((bytes / 1024)))"
printf 'download of %d MB: peak - idle = %6d MB  (target <= 16)\n' "$size_mb" $((down_kb / 1024))
