# Private PostgreSQL, MariaDB and S3 servers for the tests (sourced by test.sh).
# Each gets its own data folder under $servers_dir, a free loopback port, a
# database "vostra_test" and a user "vostra" with password "vostra"; nothing
# of the machine's own servers is used. stop_test_servers removes them all.

servers_dir=""

free_tcp_port() {
  local port
  while :; do
    port=$((10000 + RANDOM % 20000))
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || { echo "$port"; return; }
  done
}

# Runs a command as the unprivileged owner of the server folders: database
# servers refuse to run as root.
as_owner() {
  if [ "$(id -u)" -eq 0 ]; then runuser -u "$server_user" -- "$@"; else "$@"; fi
}

start_postgres() {
  local bin
  bin=$(ls -d /usr/lib/postgresql/*/bin | sort -V | tail -1)
  local data="$servers_dir/pg"
  mkdir -p "$data" && chown "$server_user" "$data"
  as_owner "$bin/initdb" -D "$data/db" -U postgres --auth=trust -E UTF8 >"$servers_dir/pg-init.log" 2>&1 || return 1
  VOSTRA_TEST_PG_PORT=$(free_tcp_port)
  as_owner "$bin/pg_ctl" -D "$data/db" -l "$data/server.log" -w -t 60 \
    -o "-p $VOSTRA_TEST_PG_PORT -k $data -c listen_addresses=127.0.0.1 -c fsync=off" start \
    >/dev/null || { cat "$data/server.log" >&2; return 1; }
  as_owner psql -h 127.0.0.1 -p "$VOSTRA_TEST_PG_PORT" -U postgres -d postgres -q \
    -c "CREATE USER vostra PASSWORD 'vostra' SUPERUSER" -c "CREATE DATABASE vostra_test OWNER vostra" \
    >/dev/null || return 1
  export VOSTRA_TEST_PG_PORT VOSTRA_TEST_PG_DATA="$data/db" VOSTRA_TEST_PG_BIN="$bin"
  echo "PostgreSQL test server on 127.0.0.1:$VOSTRA_TEST_PG_PORT"
}

start_mariadb() {
  local data="$servers_dir/mariadb"
  mkdir -p "$data" && chown "$server_user" "$data"
  as_owner mariadb-install-db --no-defaults --datadir="$data/db" --auth-root-authentication-method=normal \
    --skip-test-db >"$servers_dir/mariadb-init.log" 2>&1 || { cat "$servers_dir/mariadb-init.log" >&2; return 1; }
  VOSTRA_TEST_MYSQL_PORT=$(free_tcp_port)
  local server_args=(--no-defaults --datadir="$data/db" --port="$VOSTRA_TEST_MYSQL_PORT"
    --bind-address=127.0.0.1 --socket="$data/mysqld.sock" --pid-file="$data/mysqld.pid"
    --skip-name-resolve --innodb-flush-log-at-trx-commit=0 --log-error="$data/server.log")
  as_owner mariadbd "${server_args[@]}" >/dev/null 2>&1 &
  for _ in $(seq 120); do
    mariadb-admin --no-defaults -h 127.0.0.1 -P "$VOSTRA_TEST_MYSQL_PORT" -u root ping >/dev/null 2>&1 && break
    sleep 0.5
  done
  mariadb --no-defaults -h 127.0.0.1 -P "$VOSTRA_TEST_MYSQL_PORT" -u root -e "
    CREATE DATABASE vostra_test CHARACTER SET utf8mb4;
    CREATE USER 'vostra'@'%' IDENTIFIED BY 'vostra';
    GRANT ALL ON *.* TO 'vostra'@'%';" || { cat "$data/server.log" >&2; return 1; }
  # Tests restart the server with the same arguments; they read them from here.
  printf '%s\n' "${server_args[@]}" >"$data/args"
  export VOSTRA_TEST_MYSQL_PORT VOSTRA_TEST_MYSQL_DATA="$data"
  echo "MariaDB test server on 127.0.0.1:$VOSTRA_TEST_MYSQL_PORT"
}

# The S3-compatible server of tests/tools (npm packages installed by
# install-deps.sh test), with a fixed key pair and no bucket: each test makes
# its own. Runs as the caller; its objects live under $servers_dir/s3.
start_s3() {
  local tools
  tools="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/tests/tools"
  mkdir -p "$servers_dir/s3"
  VOSTRA_TEST_S3_ACCESS_KEY=vostra-test
  VOSTRA_TEST_S3_SECRET_KEY='vostra/test+secret'
  node --openssl-legacy-provider "$tools/s3_server.js" "$servers_dir/s3/data" \
    "$VOSTRA_TEST_S3_ACCESS_KEY" "$VOSTRA_TEST_S3_SECRET_KEY" "$@" \
    >"$servers_dir/s3/out.log" 2>"$servers_dir/s3/server.log" &
  echo $! >"$servers_dir/s3/pid"
  for _ in $(seq 150); do
    VOSTRA_TEST_S3_PORT=$(awk '/^port / {print $2}' "$servers_dir/s3/out.log")
    [ -n "$VOSTRA_TEST_S3_PORT" ] && break
    kill -0 "$(cat "$servers_dir/s3/pid")" 2>/dev/null || break
    sleep 0.2
  done
  [ -n "$VOSTRA_TEST_S3_PORT" ] || { cat "$servers_dir/s3/server.log" >&2; return 1; }
  export VOSTRA_TEST_S3_PORT VOSTRA_TEST_S3_ACCESS_KEY VOSTRA_TEST_S3_SECRET_KEY
  echo "S3 test server on 127.0.0.1:$VOSTRA_TEST_S3_PORT"
}

start_test_servers() {
  servers_dir=$(mktemp -d /tmp/vostra-servers-XXXXXX)
  chmod 755 "$servers_dir"
  server_user=$(id -un)
  if [ "$(id -u)" -eq 0 ]; then
    id vostra-test >/dev/null 2>&1 || useradd --system --no-create-home --shell /usr/sbin/nologin vostra-test
    server_user=vostra-test
  fi
  export VOSTRA_TEST_SERVER_USER="$server_user"
  start_postgres || { echo "PostgreSQL test server failed to start" >&2; return 1; }
  start_mariadb || { echo "MariaDB test server failed to start" >&2; return 1; }
  start_s3 || { echo "S3 test server failed to start" >&2; return 1; }
}

stop_test_servers() {
  [ -n "$servers_dir" ] || return 0
  if [ -n "${VOSTRA_TEST_PG_DATA:-}" ]; then
    as_owner "$VOSTRA_TEST_PG_BIN/pg_ctl" -D "$VOSTRA_TEST_PG_DATA" -m immediate -w stop >/dev/null 2>&1
  fi
  if [ -f "$servers_dir/mariadb/mysqld.pid" ]; then
    kill "$(cat "$servers_dir/mariadb/mysqld.pid")" 2>/dev/null
    for _ in $(seq 40); do [ -f "$servers_dir/mariadb/mysqld.pid" ] || break; sleep 0.25; done
  fi
  pkill -f -- "--datadir=$servers_dir/" 2>/dev/null || true
  if [ -f "$servers_dir/s3/pid" ]; then kill "$(cat "$servers_dir/s3/pid")" 2>/dev/null; fi
  rm -rf "$servers_dir"
  servers_dir=""
}
