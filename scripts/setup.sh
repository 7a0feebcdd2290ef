#!/usr/bin/env bash
# Idempotent set-up: installs only what is missing, so a second run is quick.
#   - Debian packages that pip cannot give (GoogleTest headers and library)
#   - .venv at the repository root with the build and test requirements
#   - the lint tools (clang-format, clang-tidy, ruff) into .venv
#   - the project itself, rebuilt only when its sources changed
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

apt_packages=(libgtest-dev ${VELMOT_EXTRA_APT:-})
missing=()
for pkg in "${apt_packages[@]}"; do
  dpkg -s "$pkg" >/dev/null 2>&1 || missing+=("$pkg")
done
if ((${#missing[@]})); then
  echo "setup: installing Debian packages: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" = 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

[ -x .venv/bin/python ] || { echo "setup: creating .venv"; python3 -m venv .venv; }
py=.venv/bin/python

# Requirements: the build backend's plus the runtime and test extras, read
# from pyproject.toml; reinstalled only when pyproject.toml changes.
deps_stamp=.venv/.velmot-deps
deps_hash=$(sha1sum pyproject.toml | cut -d' ' -f1)
if [ "$(cat "$deps_stamp" 2>/dev/null)" != "$deps_hash" ]; then
  echo "setup: installing Python requirements"
  mapfile -t requirements < <("$py" - <<'PY'
import tomllib
with open("pyproject.toml", "rb") as f:
    project = tomllib.load(f)
reqs = project["build-system"]["requires"] + project["project"]["dependencies"]
for extra in project["project"].get("optional-dependencies", {}).values():
    reqs += extra
reqs += ["cmake>=3.18", "ninja"]
print("\n".join(dict.fromkeys(reqs)))
PY
)
  "$py" -m pip install -q --disable-pip-version-check "${requirements[@]}"
  echo "$deps_hash" > "$deps_stamp"
  rm -f .venv/.velmot-build
fi

# Lint tools, from PyPI wheels, each held to one release series so that
# formatting and findings do not shift under the code between runs.
lint_tools=("clang-format>=23.1,<24" "clang-tidy>=23.1,<24" "ruff>=0.17,<0.18")
lint_stamp=.venv/.velmot-lint-tools
lint_hash=$(printf '%s\n' "${lint_tools[@]}" | sha1sum | cut -d' ' -f1)
if [ "$(cat "$lint_stamp" 2>/dev/null)" != "$lint_hash" ]; then
  echo "setup: installing lint tools"
  "$py" -m pip install -q --disable-pip-version-check "${lint_tools[@]}"
  echo "$lint_hash" > "$lint_stamp"
fi

# The project: rebuilt (incrementally, in build/python) only when a source
# file changed.
build_stamp=.venv/.velmot-build
build_hash=$(find CMakeLists.txt pyproject.toml include src PyVelmot python -type f \
               \( -name '*.h' -o -name '*.cpp' -o -name '*.py' -o -name '*.pyi' -o -name '*.txt' -o -name '*.toml' \) \
               -print0 | sort -z | xargs -0 sha1sum | sha1sum | cut -d' ' -f1)
if [ "$(cat "$build_stamp" 2>/dev/null)" != "$build_hash" ]; then
  echo "setup: building and installing velmot into .venv"
  PATH="$root/.venv/bin:$PATH" "$py" -m pip install -q --disable-pip-version-check \
    --no-build-isolation --no-deps -C build-dir=build/python .
  echo "$build_hash" > "$build_stamp"
fi
