#!/usr/bin/env bash
# Point SELECTs by primary key through POST /api/v1/data/query on a
# PostgreSQL source (wrk, 8 connections, pool max 8) beside `pgbench -S -c 8`
# on the same private server and table, and GET /health of the same daemon,
# in the same run. One request per connection bounds what the daemon can
# reach: the combined ceiling 1/(1/health + 1/pgbench). Prints the rates,
# the ratio to pgbench and the ratio to the ceiling (target: 0.8 or better).
set -euo pipefail
source "$(dirname "$0")/common.sh"
source "$root/scripts/test-servers.sh"
duration=${DURATION:-10}
scale=1   # pgbench_accounts holds 100,000 rows per unit of scale

build_release
start_bench_postgres
export PGPASSWORD=vostra
pgbench -q -i -s "$scale" -h 127.0.0.1 -p "$VOSTRA_TEST_PG_PORT" -U vostra vostra_test >/dev/null 2>&1
rows=$((scale * 100000))

port=$(free_port)
start_datad "$port" --add-source "{\"id\":\"pg\",\"type\":\"postgresql\",\"host\":\"127.0.0.1\",\"port\":$VOSTRA_TEST_PG_PORT,\"database\":\"vostra_test\",\"username\":\"vostra\",\"password\":\"vostra\",\"pool_config\":{\"max_connections\":8,\"validate_on_acquire\":${VALIDATE:-true}}}"

cat >"$work/pg.lua" <<LUA
wrk.method = "POST"
wrk.headers["Content-Type"] = "application/json"
math.randomseed(os.time())
request = function()
  local body = '{"source_id":"pg","sql":"SELECT abalance FROM pgbench_accounts WHERE aid = \$1","params":["' .. math.random(1, $rows) .. '"]}'
  return wrk.format(nil, "/api/v1/data/query", nil, body)
end
LUA

read -r daemon_rate daemon_errors < <(wrk_rate -t2 -c8 -d"${duration}s" -s "$work/pg.lua" "http://127.0.0.1:$port")
read -r health_rate _ < <(wrk_rate -t2 -c8 -d"${duration}s" "http://127.0.0.1:$port/health")
pgbench_rate=$(pgbench -S -c 8 -j 2 -T "$duration" -h 127.0.0.1 -p "$VOSTRA_TEST_PG_PORT" -U vostra vostra_test 2>/dev/null \
  | awk '/^tps/ {print $3; exit}')

printf 'vostra-datad point SELECT over HTTP: %10.0f tx/s  socket errors: %s\n' "$daemon_rate" "$daemon_errors"
printf 'pgbench -S -c 8:                     %10.0f tx/s\n' "$pgbench_rate"
ceiling=$(awk -v h="$health_rate" -v p="$pgbench_rate" 'BEGIN { printf "%.0f", (h > 0 && p > 0 ? 1 / (1 / h + 1 / p) : 0) }')
printf 'GET /health, same daemon:             %10.0f req/s\n' "$health_rate"
printf 'combined ceiling 1/(1/health+1/pgbench): %7.0f req/s\n' "$ceiling"
echo "ratio daemon/pgbench:                 $(ratio "$daemon_rate" "$pgbench_rate")"
echo "ratio daemon/ceiling:                 $(ratio "$daemon_rate" "$ceiling") (target >= 0.80)"
