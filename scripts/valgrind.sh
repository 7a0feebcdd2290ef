#!/usr/bin/env bash
# Runs a small Python learn/test/prob round trip (scripts/valgrind_roundtrip.py,
# error paths included) under valgrind's memcheck, against a module built
# with debug information in build/harden-valgrind. Fails on any definite
# leak or memory error whose stack passes through our code (PyVelmot_wrap,
# the Velmot library). The interpreter, numpy and the OpenMP runtime keep
# memory alive at exit on purpose; their records are listed in the log but
# do not fail the run.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
VELMOT_EXTRA_APT="${VELMOT_EXTRA_APT:-} valgrind" "$root/scripts/setup.sh"
export PATH="$root/.venv/bin:$PATH"
build=build/harden-valgrind
log="$build/memcheck.log"

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELMOT_BUILD_TESTS=OFF \
  -DPython_EXECUTABLE="$root/.venv/bin/python" >/dev/null
cmake --build "$build" -j 2 --target PyVelmot_wrap

echo "== valgrind memcheck: Python round trip"
# PYTHONMALLOC=malloc: every object goes through malloc, so memcheck sees it.
PYTHONMALLOC=malloc PYTHONPATH="$root/$build" OMP_NUM_THREADS=2 \
  valgrind --tool=memcheck --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=definite \
  --num-callers=40 --log-file="$log" \
  .venv/bin/python "$root/scripts/valgrind_roundtrip.py"

# Each record is a block of lines between blank lines; ours are those whose
# stack names the module or the library.
.venv/bin/python - "$log" <<'PY'
import re, sys
text = open(sys.argv[1]).read()
records = re.split(r"\n==\d+== \n", text)
ours = re.compile(r"PyVelmot_wrap|PyVelmot::|Velmot::")
found = [r for r in records
         if ours.search(r) and re.search(r"definitely lost|Invalid (read|write|free)|uninitialised|Mismatched|overlap", r)]
summary = re.findall(r"(definitely lost: .*|ERROR SUMMARY: .*)", text)
print("\n".join(s for s in summary[-2:]))
if found:
    print(f"{len(found)} memcheck record(s) in our code:\n")
    print("\n\n".join(found))
    sys.exit(1)
print("no definite leak or memory error in our code (full log: %s)" % sys.argv[1])
PY
