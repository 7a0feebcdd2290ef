#!/usr/bin/env bash
# Lint, after the idempotent set-up step (which installs the tools into
# .venv): clang-format in check mode, clang-tidy over every compiled unit
# (library, module, C++ tests) with the checks of .clang-tidy, and ruff's
# checks and format check over the Python. Every tool runs even if an
# earlier one failed; the exit status reports any failure.
set -uo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
"$root/scripts/setup.sh" || exit 1
export PATH="$root/.venv/bin:$PATH"
jobs=${LINT_JOBS:-2}
status=0

echo "== clang-format"
mapfile -t cpp_files < <(find include src PyVelmot tests/cpp -type f \( -name '*.h' -o -name '*.cpp' \) | sort)
cpp_files+=(bench/*.cpp fuzz/*.cpp)
clang-format --dry-run -Werror "${cpp_files[@]}" || status=1

echo "== clang-tidy"
# Configured (not built) with the module and the tests, so that the
# compilation database lists every unit.
if cmake -S . -B build/lint -G Ninja -DVELMOT_BUILD_TESTS=ON -DVELMOT_BUILD_MODULE=ON >/dev/null; then
  # The wheel's clang finds GCC's own headers (omp.h) only when told.
  gcc_include=$(gcc -print-file-name=include)
  python3 -c 'import json, sys; print("\n".join(sorted({e["file"] for e in json.load(open(sys.argv[1]))})))' \
    build/lint/compile_commands.json |
    xargs -P "$jobs" -n 1 clang-tidy --quiet -p build/lint --extra-arg="-idirafter$gcc_include" || status=1
else
  status=1
fi

echo "== ruff"
python_dirs=(python tests bench scripts examples)
ruff check "${python_dirs[@]}" || status=1
ruff format --check "${python_dirs[@]}" || status=1
exit $status
