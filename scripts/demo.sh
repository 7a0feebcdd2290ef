#!/usr/bin/env bash
# The main job: the idempotent set-up, then forests on real data beside
# scikit-learn (examples/showcase.py).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/setup.sh"
exec "$root/.venv/bin/python" "$root/examples/showcase.py" "$@"
