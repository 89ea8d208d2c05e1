# Shared helpers for the benchmark scripts (sourced, not run).
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
work=$(mktemp -d /tmp/vostra-bench-XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; done
  wait 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

# A random loopback port nobody answers on.
free_port() {
  local port
  while :; do
    # Below the ephemeral range, which wrk fills with TIME_WAIT sockets.
    port=$((10000 + RANDOM % 22000))
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || { echo "$port"; return; }
  done
}

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }'; }

build_release() {
  cmake -S "$root" -B "$root/build/bench" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVOSTRA_TESTS=OFF >/dev/null
  cmake --build "$root/build/bench" --target vostra-datad -j "$(nproc)" >/dev/null
  datad="$root/build/bench/daemon/vostra-datad"
}

# start_datad <port> <extra args…>: runs the release daemon until the script ends.
start_datad() {
  local port=$1; shift
  "$datad" -p "$port" --storage-path "$work/storage" "$@" >"$work/datad.log" 2>&1 &
  pids+=($!)
  for _ in $(seq 100); do curl -sf "http://127.0.0.1:$port/health" >/dev/null && return; sleep 0.05; done
  echo "daemon did not come up" >&2; cat "$work/datad.log" >&2; exit 1
}

# wrk_rate <wrk args…>: prints "<requests/s> <socket errors>".
wrk_rate() {
  local out
  out=$(wrk "$@")
  echo "$out" >>"$work/wrk.log"
  local rate errors
  rate=$(echo "$out" | awk '/Requests\/sec/ {print $2}')
  errors=$(echo "$out" | awk '/Socket errors/ {s=0; for (i=1;i<=NF;i++) if ($i ~ /^[0-9]+,?$/) s+=$i; print s}')
  echo "$rate ${errors:-0}"
}

# start_nginx <port> <http lines> <server lines>: a reference nginx on
# loopback, one connection per request like the daemon, run until the script
# ends. Its folder is $work/nginx.
start_nginx() {
  mkdir -p "$work/nginx"
  cat >"$work/nginx/nginx.conf" <<CONF
user $(id -un);
worker_processes auto;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log;
events { worker_connections 4096; }
http {
  access_log off;
  keepalive_timeout 0;
$2
  server {
    listen 127.0.0.1:$1;
$3
  }
}
CONF
  nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" -g 'daemon off;' &
  pids+=($!)
}

# start_bench_postgres: the test scripts' private PostgreSQL server (needs
# scripts/test-servers.sh sourced), stopped when the script ends; its port
# is $VOSTRA_TEST_PG_PORT. As root the server runs as a system user of its own.
start_bench_postgres() {
  servers_dir=$(mktemp -d /tmp/vostra-bench-pg-XXXXXX)
  chmod 755 "$servers_dir"
  server_user=$(id -un)
  if [ "$(id -u)" -eq 0 ]; then
    id vostra-test >/dev/null 2>&1 || useradd --system --no-create-home --shell /usr/sbin/nologin vostra-test
    server_user=vostra-test
  fi
  trap 'stop_test_servers || true; cleanup' EXIT
  start_postgres >/dev/null
}
