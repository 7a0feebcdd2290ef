#!/usr/bin/env bash
# Idempotent set-up of the benchmark: the project itself (scripts/setup.sh),
# then every peer that is missing. A peer that cannot be installed is left
# out here and reported as skipped by bench/run.py, never silently.
#   - Debian: r-cran-ranger (ranger is not on PyPI)
#   - .venv: matplotlib for the chart, and the Python peers
set -uo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

"$root/scripts/setup.sh" || { echo "bench/setup: the project's set-up failed" >&2; exit 1; }
py=.venv/bin/python

sudo_cmd=()
[ "$(id -u)" = 0 ] || sudo_cmd=(sudo)
if ! dpkg -s r-cran-ranger >/dev/null 2>&1; then
  echo "bench/setup: installing Debian package r-cran-ranger"
  "${sudo_cmd[@]}" apt-get update -qq \
    && DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq \
         --no-install-recommends r-cran-ranger >/dev/null \
    || echo "bench/setup: could not install r-cran-ranger; ranger will be skipped" >&2
fi

# module name to import -> pip requirement. numpy stays below 2 for the
# extension module, so every install is constrained to it.
python_peers=(
  "matplotlib|matplotlib>=3.7,<4"
  "ydf|ydf>=0.9"
  "sklearnex|scikit-learn-intelex>=2024.0"
  "lightgbm|lightgbm>=4.0,<5"
  "xgboost|xgboost-cpu>=2.1,<4"
)
constraints=$(mktemp)
trap 'rm -f "$constraints"' EXIT
echo "numpy>=1.24,<2" > "$constraints"
for entry in "${python_peers[@]}"; do
  module=${entry%%|*}
  requirement=${entry#*|}
  "$py" -c "import $module" >/dev/null 2>&1 && continue
  echo "bench/setup: installing $requirement"
  "$py" -m pip install -q --disable-pip-version-check -c "$constraints" "$requirement" \
    || echo "bench/setup: could not install $requirement; it will be skipped" >&2
done
exit 0
