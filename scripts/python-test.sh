#!/usr/bin/env bash
# Installs the Python package into a fresh virtual environment, as a user would, and runs its
# tests against a shared build of the library and its emulator.
#   python-test.sh [BUILD_DIR [PYTEST_ARGS...]]
#   (default: build/plain-shared-ON, which scripts/test.sh makes)
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build/plain-shared-ON}"
shift || true
library="$build/src/libquorvel.so"
# The emulator may come from another build (QUORVEL_DEVSERVER), as for a library built without
# the tools.
devserver="${QUORVEL_DEVSERVER:-$build/tools/devserver/quorvel-devserver}"
[ -f "$library" ] && [ -x "$devserver" ] || { echo "python-test: build $build first"; exit 1; }
venv=build/python-venv
rm -rf "$venv"
# The system's pytest and setuptools serve the environment: nothing comes from a package index.
# Debian's own interpreter, whose site packages hold them (not another one first on PATH).
/usr/bin/python3 -m venv --system-site-packages "$venv"
"$venv/bin/pip" install --quiet --no-build-isolation --no-deps --no-index ./bindings/python
# From outside the source folder, so that the installed package is the one imported.
cd bindings/python/tests
QUORVEL_LIBRARY="$OLDPWD/$library" QUORVEL_DEVSERVER="$OLDPWD/$devserver" \
  "$OLDPWD/$venv/bin/python" -m pytest -q -p no:cacheprovider . "$@"
