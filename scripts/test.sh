#!/usr/bin/env bash
# Runs every test: the C++ suite (GoogleTest through CTest) and the Python
# suite (pytest), after the idempotent set-up step.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
"$root/scripts/setup.sh"
export PATH="$root/.venv/bin:$PATH"

echo "== C++ tests"
cmake -S . -B build/cpp -G Ninja -DVELMOT_BUILD_TESTS=ON -DVELMOT_BUILD_MODULE=OFF >/dev/null
cmake --build build/cpp -j 2
# Both suites run even if the first fails; the exit status reports either.
status=0
ctest --test-dir build/cpp --output-on-failure --no-tests=error -j 2 || status=1

echo "== Python tests"
# The installed package (built above into .venv), not the source tree, is
# what the tests import.
.venv/bin/python -m pytest -c "$root/pyproject.toml" --rootdir "$root" "$root/tests/python" "$@" || status=1
exit $status
