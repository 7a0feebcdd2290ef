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
ctest --test-dir build/cpp --output-on-failure --no-tests=error -j 2

echo "== Python tests"
# Run from the tests folder so that the installed package, not the source
# tree, is what gets imported.
.venv/bin/python -m pytest -c "$root/pyproject.toml" --rootdir "$root" "$root/tests/python" "$@"
