#!/usr/bin/env bash
# Builds vostra-datad and runs it standalone on port 8892 with its storage and
# state under ./var of the checkout. Extra arguments go to the daemon.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

"$root/scripts/install-deps.sh" build
cmake -S "$root" -B "$root/build/release" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVOSTRA_TESTS=OFF >/dev/null
cmake --build "$root/build/release" --target vostra-datad -j "$(nproc)"

mkdir -p "$root/var/storage" "$root/var/data"
echo "vostra-datad listens on http://0.0.0.0:8892 unless -p or --config says otherwise (try: curl http://localhost:8892/health)"
exec "$root/build/release/daemon/vostra-datad" \
  --storage-path "$root/var/storage" --data-dir "$root/var/data" --git-path "$root/var/git" "$@"
