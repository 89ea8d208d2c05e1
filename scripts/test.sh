#!/usr/bin/env bash
# Installs everything the tests need, then builds and runs the whole suite
# twice (normal, and AddressSanitizer+UndefinedBehaviorSanitizer) and the
# concurrency tests a third time under ThreadSanitizer. Exits non-zero when
# any build or test fails.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc)

"$root/scripts/install-deps.sh" test || exit 1

# Private database servers for the connector tests, removed on any exit.
source "$root/scripts/test-servers.sh"
trap stop_test_servers EXIT
trap 'exit 130' INT TERM
start_test_servers || exit 1

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"

failed=()
summary=""

# suite <name> <ctest filter args…> -- <cmake args…>
suite() {
  local name=$1; shift
  local ctest_args=()
  while [ "$1" != "--" ]; do ctest_args+=("$1"); shift; done
  shift
  local dir="$root/build/$name"
  echo "=== [$name] build"
  local targets=()
  [ -n "${TARGETS:-}" ] && targets=(--target $TARGETS)
  if ! cmake -S "$root" -B "$dir" -G Ninja "$@" >/dev/null \
      || ! cmake --build "$dir" -j "$jobs" "${targets[@]}"; then
    failed+=("$name (build)")
    return
  fi
  echo "=== [$name] test"
  local log="$dir/ctest.log"
  ctest --test-dir "$dir" -j "$jobs" --timeout 600 --output-on-failure "${ctest_args[@]}" 2>&1 | tee "$log"
  local status=${PIPESTATUS[0]}
  summary+="[$name] $(grep -E 'tests passed|tests failed' "$log" | tail -1)"$'\n'
  [ "$status" -eq 0 ] || failed+=("$name")
}

suite normal -- -DCMAKE_BUILD_TYPE=RelWithDebInfo
suite asan -- -DCMAKE_BUILD_TYPE=Debug -DVOSTRA_SANITIZE=ON
TARGETS="${TSAN_TARGETS:-connection_pool_test vector_concurrency_test service_slot_test connection_reader_test nfs_test git_storage_test science_test sandbox_test}" suite tsan -L concurrency -- -DCMAKE_BUILD_TYPE=Debug -DVOSTRA_TSAN=ON

echo
echo "=== Summary"
printf '%s' "$summary"
if [ ${#failed[@]} -gt 0 ]; then
  echo "FAILED: ${failed[*]}"
  exit 1
fi
echo "All suites passed."
