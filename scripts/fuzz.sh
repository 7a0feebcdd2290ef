#!/usr/bin/env bash
# Installs clang and its sanitizer runtimes if missing (through the set-up
# step), then fuzzes each reader for SECONDS (default 60) from its saved
# corpus. A crash, leak, timeout or sanitizer report fails the run; the
# input that caused it is left in build/fuzz/artifacts/ and the full log in
# build/fuzz/<target>.log.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
seconds=${1:-60}
VELMOT_EXTRA_APT="${VELMOT_EXTRA_APT:-} clang libclang-rt-14-dev" "$root/scripts/setup.sh"
mkdir -p build/fuzz
for target in tree description; do
  echo "== fuzzing the $target reader for $seconds s"
  log="build/fuzz/$target.log"
  if "$root/fuzz/build.sh" run "$target" "$seconds" -print_final_stats=1 >"$log" 2>&1; then
    grep -E "^(Done|stat::number_of_executed_units|stat::peak_rss_mb)" "$log" || tail -n 5 "$log"
  else
    cat "$log"
    echo "fuzz: the $target reader failed; the input is in build/fuzz/artifacts/" >&2
    exit 1
  fi
done
