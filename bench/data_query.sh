#!/usr/bin/env bash
# Point look-ups by random primary key through POST /api/v1/data/query on a
# SQLite source of 100,000 rows, beside GET /health in the same run (wrk, 8
# connections). Prints both rates and the ratio query/health (target: 0.7 or
# better), and the cost of the same look-up through sqlite3 directly, so the
# share of HTTP, pool and JSON is visible.
set -euo pipefail
source "$(dirname "$0")/common.sh"
duration=${DURATION:-10s}
rows=100000

cmake -S "$root" -B "$root/build/bench" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVOSTRA_TESTS=OFF -DVOSTRA_BENCH=ON >/dev/null
cmake --build "$root/build/bench" --target vostra-datad sqlite_point_lookup -j "$(nproc)" >/dev/null
datad="$root/build/bench/daemon/vostra-datad"

sqlite3 "$work/items.db" "CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT, price REAL);
  WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < $rows)
  INSERT INTO items SELECT i, 'item-' || i, i * 0.5 FROM n;"

port=$(free_port)
start_datad "$port" --add-source "{\"id\":\"items\",\"type\":\"sqlite\",\"path\":\"$work/items.db\",\"pool_config\":{\"max_connections\":8}}"

# The requests are formatted once up front, so wrk (which shares the cores)
# spends no Lua time per request that the /health run does not spend.
cat >"$work/query.lua" <<LUA
math.randomseed(os.time())
local requests = {}
for i = 1, 4096 do
  local body = '{"source_id":"items","sql":"SELECT * FROM items WHERE id = ?","params":["' .. math.random(1, $rows) .. '"]}'
  requests[i] = wrk.format("POST", "/api/v1/data/query", {["Content-Type"] = "application/json"}, body)
end
local next = 0
request = function()
  next = next % #requests + 1
  return requests[next]
end
LUA

read -r query_rate query_errors < <(wrk_rate -t2 -c8 -d"$duration" -s "$work/query.lua" "http://127.0.0.1:$port")
read -r health_rate health_errors < <(wrk_rate -t2 -c8 -d"$duration" "http://127.0.0.1:$port/health")
non2xx=$(grep -c 'Non-2xx' "$work/wrk.log" || true)

printf 'POST /api/v1/data/query (point look-up): %10.0f req/s  socket errors: %s\n' "$query_rate" "$query_errors"
printf 'GET /health:                             %10.0f req/s  socket errors: %s\n' "$health_rate" "$health_errors"
echo "ratio query/health:                      $(ratio "$query_rate" "$health_rate") (target >= 0.70)"
[ "$non2xx" -eq 0 ] || echo "WARNING: non-2xx answers seen"
lookups=$("$root/build/bench/bench/sqlite_point_lookup" "$work/items.db" "$rows" --benchmark_format=csv 2>/dev/null)
raw_us() { echo "$lookups" | awk -F, -v name="\"$1\"" '$1 == name {printf "%.1f", $3 / 1000}'; }
per_query_us=$(awk -v r="$query_rate" 'BEGIN { printf "%.1f", (r > 0 ? 1e6 / r : 0) }')
echo "raw sqlite3 look-up, prepared each time: $(raw_us BM_PointLookup) us/query"
echo "raw sqlite3 look-up, prepared once:      $(raw_us BM_PointLookupPrepared) us/query"
echo "HTTP query route:                        $per_query_us us/query of wall time at 8 connections on $(nproc) cores"
