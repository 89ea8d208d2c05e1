#!/usr/bin/env bash
# Peak resident memory of the daemon while it answers one big query through
# POST /api/v1/data/query: (peak RSS - idle RSS) / answer size, each source on
# a fresh daemon. The PostgreSQL source is a private server of its own (as in
# postgres_query.sh), the SQLite source a file. Target: 3.0 or less.
# ROWS (default 2,000,000) rows of an integer id and a 32-character text;
# SOURCES picks "postgresql", "sqlite" or both (the default); DATAD runs an
# already built binary instead of building a Release one.
set -euo pipefail
source "$(dirname "$0")/common.sh"
source "$root/scripts/test-servers.sh"
rows=${ROWS:-2000000}
sources=${SOURCES:-postgresql sqlite}

if [ -n "${DATAD:-}" ]; then datad=$DATAD; else build_release; fi

rss_kb() { awk -v key="$2:" '$1 == key {print $2}' "/proc/$1/status"; }

# measure <label> <source JSON> <SQL>: a fresh daemon, idle RSS, the query, peak RSS.
measure() {
  local label=$1 source=$2 sql=$3
  local port; port=$(free_port)
  start_datad "$port" --add-source "$source"
  local pid=${pids[-1]}
  sleep 0.3
  local idle; idle=$(rss_kb "$pid" VmRSS)
  local status
  status=$(curl -s -o "$work/answer.json" -w '%{http_code}' -X POST \
    -d "{\"source_id\":\"big\",\"sql\":\"$sql\"}" "http://127.0.0.1:$port/api/v1/data/query")
  local peak; peak=$(rss_kb "$pid" VmHWM)
  kill "$pid"; wait "$pid" 2>/dev/null || true
  # Gone already: cleanup's kill of it would fail and, under set -e, end the
  # cleanup before it removes the work folder.
  unset 'pids[-1]'
  [ "$status" = 200 ] || { echo "$label: query answered $status" >&2; head -c 300 "$work/answer.json" >&2; exit 1; }
  local answer_kb=$(( $(stat -c %s "$work/answer.json") / 1024 ))
  printf '%-10s %d rows: answer %5d MB, peak - idle = %5d MB, ratio %s (target <= 3.0)\n' \
    "$label" "$rows" $((answer_kb / 1024)) $(((peak - idle) / 1024)) "$(ratio $((peak - idle)) "$answer_kb")"
}

for source in $sources; do
  case $source in
    postgresql)
      start_bench_postgres
      PGPASSWORD=vostra psql -q -h 127.0.0.1 -p "$VOSTRA_TEST_PG_PORT" -U vostra vostra_test \
        -c "CREATE TABLE big AS SELECT i AS id, md5(i::text) AS name FROM generate_series(1, $rows) i" >/dev/null
      measure PostgreSQL "{\"id\":\"big\",\"type\":\"postgresql\",\"host\":\"127.0.0.1\",\"port\":$VOSTRA_TEST_PG_PORT,\"database\":\"vostra_test\",\"username\":\"vostra\",\"password\":\"vostra\"}" \
        "SELECT id, name FROM big"
      ;;
    sqlite)
      sqlite3 "$work/big.db" "CREATE TABLE big(id INTEGER PRIMARY KEY, name TEXT);
        WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < $rows)
        INSERT INTO big SELECT i, printf('%032x', i * 2654435761) FROM n;"
      measure SQLite "{\"id\":\"big\",\"type\":\"sqlite\",\"path\":\"$work/big.db\"}" "SELECT id, name FROM big"
      ;;
    *) echo "unknown source: $source" >&2; exit 1 ;;
  esac
done
