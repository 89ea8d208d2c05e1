#!/usr/bin/env bash
# Request rate of GET /health on vostra-datad against nginx answering a fixed
# small JSON body, both closing every connection. Prints both rates and the
# ratio daemon/nginx (target: 0.8 or better, zero socket errors).
set -euo pipefail
source "$(dirname "$0")/common.sh"
duration=${DURATION:-10s}
connections=${CONNECTIONS:-16}

build_release
datad_port=$(free_port)
start_datad "$datad_port"

nginx_port=$(free_port)
start_nginx "$nginx_port" "" "    location / {
      default_type application/json;
      return 200 '{\"status\":\"healthy\",\"daemon_id\":\"data-000000000000\",\"uptime_seconds\":1,\"total_sources\":0,\"healthy_sources\":0}';
    }"
sleep 0.5

read -r datad_rate datad_errors < <(wrk_rate -t2 -c"$connections" -d"$duration" "http://127.0.0.1:$datad_port/health")
read -r nginx_rate nginx_errors < <(wrk_rate -t2 -c"$connections" -d"$duration" "http://127.0.0.1:$nginx_port/health")

printf 'vostra-datad GET /health: %10.0f req/s  socket errors: %s\n' "$datad_rate" "$datad_errors"
printf 'nginx fixed JSON:         %10.0f req/s  socket errors: %s\n' "$nginx_rate" "$nginx_errors"
echo "ratio daemon/nginx:       $(ratio "$datad_rate" "$nginx_rate") (target >= 0.80)"
