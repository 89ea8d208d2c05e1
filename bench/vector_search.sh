#!/usr/bin/env bash
# Top-10 similarity search over 100,000 random 768-float documents in the
# memory and SQLite vector backends, each against its reference measured in
# the same run (one streaming pass over the same floats; stepping the same
# SQLite table without arithmetic), plus ingestion with the local embedder.
# Needs about 1.5 GB of memory and 400 MB of scratch disk.
# Environment: DOCUMENTS (100000), DIMENSION (768).
set -euo pipefail
source "$(dirname "$0")/common.sh"

cmake -S "$root" -B "$root/build/bench" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVOSTRA_TESTS=OFF -DVOSTRA_BENCH=ON >/dev/null
cmake --build "$root/build/bench" --target vector_search -j "$(nproc)" >/dev/null

"$root/build/bench/bench/vector_search" "$work" "${DOCUMENTS:-100000}" "${DIMENSION:-768}"
