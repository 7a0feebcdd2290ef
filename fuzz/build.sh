#!/bin/sh
# Builds the libFuzzer targets with clang++ and AddressSanitizer and
# UndefinedBehaviorSanitizer; not part of the CMake build. Needs clang and
# libclang-rt (Debian: apt-get install clang libclang-rt-14-dev).
#
#   fuzz/build.sh                           build every target into build/fuzz/
#   fuzz/build.sh run description [SECONDS] build, then fuzz the description
#                                           reader for SECONDS (default 60)
#   fuzz/build.sh run tree [SECONDS]        the same for the tree text reader
#   fuzz/build.sh run tree 60 -max_len=100000
#                                           further arguments go to libFuzzer
#
# A run uses fuzz/<name>.dict, when present, to splice in keywords.
# A run starts from the saved corpus fuzz/corpus/<name>/ and keeps the inputs
# it discovers in build/fuzz/corpus/<name>/, so the repository only changes
# when an input is copied in by hand. Inputs that break something land in
# build/fuzz/artifacts/; fix the fault, then save the input under
# fuzz/corpus/<name>/ with a telling name: the C++ test suite replays every
# saved input (tests/cpp/test_fuzz_corpus_*.cpp).
set -eu

root=$(cd "$(dirname "$0")/.." && pwd)
out="$root/build/fuzz"
cxx=${CXX:-clang++}
flags="-std=c++17 -g -O1 -ffp-contract=off -Wall -Wextra
       -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined
       -I$root/include"

mkdir -p "$out"

build() {
  name=$1
  shift
  echo "building $out/fuzz_${name}_reader"
  # shellcheck disable=SC2086
  $cxx $flags -o "$out/fuzz_${name}_reader" "$@"
}

build description "$root/fuzz/fuzz_description_reader.cpp" \
  "$root/src/dataset_description.cpp" "$root/src/dataset_io.cpp"
build tree "$root/fuzz/fuzz_tree_reader.cpp" "$root/src/tree_io.cpp"

if [ "${1:-}" = run ]; then
  name=${2:?"which target: description or tree"}
  seconds=${3:-60}
  shift $(($# < 3 ? $# : 3))
  mkdir -p "$out/corpus/$name" "$out/artifacts"
  dict=""
  if [ -f "$root/fuzz/$name.dict" ]; then dict="-dict=$root/fuzz/$name.dict"; fi
  # shellcheck disable=SC2086
  "$out/fuzz_${name}_reader" -max_total_time="$seconds" -timeout=10 $dict \
    -artifact_prefix="$out/artifacts/" \
    "$@" "$out/corpus/$name" "$root/fuzz/corpus/$name"
fi
