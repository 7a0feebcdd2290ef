#!/usr/bin/env bash
# Builds the library, the C++ tests and the module with AddressSanitizer and
# UndefinedBehaviorSanitizer, then runs the C++ suite and the Python suite
# under them (the interpreter with the ASan runtime preloaded). Any report
# fails the run.
#
# Left out of the Python suite under the sanitizers: the Dask tests, for
# time (worker processes on a loopback cluster, each under ASan), and the
# out-of-memory test (ASan's shadow memory cannot live under the
# address-space limit that test sets). Extra arguments go to pytest.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
"$root/scripts/setup.sh"
export PATH="$root/.venv/bin:$PATH"
build=build/sanitize

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELMOT_SANITIZE=ON \
  -DVELMOT_BUILD_TESTS=ON -DPython_EXECUTABLE="$root/.venv/bin/python" >/dev/null
cmake --build "$build" -j 2

# allocator_may_return_null: an allocation too large for memory throws
# bad_alloc, as it does without ASan, instead of aborting; the tests check
# that such failures become clear errors.
echo "== C++ tests under ASan/UBSan"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:allocator_may_return_null=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir "$build" --output-on-failure --no-tests=error -j 2

echo "== Python tests under ASan/UBSan"
# The package's own binding belongs inside the package: a copy of the
# package with the instrumented velmot._core beside its sources.
package="$build/package"
rm -rf "$package" && mkdir -p "$package"
cp -r python/velmot "$package/"
cp "$build"/_core*.so "$package/velmot/"
# The interpreter itself is not instrumented and keeps memory alive at exit
# on purpose, so leak detection is left to the valgrind run; every other
# ASan and UBSan report aborts.
# libstdc++ is preloaded with the ASan runtime: the interpreter does not
# link it, and ASan's exception interceptor must find it at start-up, or the
# first C++ exception thrown in the module aborts.
asan_runtime=$(g++ -print-file-name=libasan.so)
cxx_runtime=$(g++ -print-file-name=libstdc++.so.6)
PYTHONMALLOC=malloc LD_PRELOAD="$asan_runtime $cxx_runtime" \
  ASAN_OPTIONS=detect_leaks=0:abort_on_error=1:allocator_may_return_null=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  PYTHONPATH="$root/$build:$root/$package" \
  .venv/bin/python -m pytest -c "$root/pyproject.toml" --rootdir "$root" -p no:cacheprovider "$root/tests/python" \
  --ignore="$root/tests/python/test_dask.py" -k "not test_out_of_memory" "$@"
