#!/bin/sh
# run_pytest.sh BUILD_PYTHON_DIR RXBROKER: the Python package's tests against a
# real broker. Exits 77 (skipped) when pytest is missing, or when the package
# was not built (python3-dev or pybind11-dev missing at configure time).
set -u
if ! /usr/bin/python3 -c 'import pytest' 2>/dev/null; then
  echo "python_tests: python3-pytest is not installed (scripts/install-deps): skipped"
  exit 77
fi
if ! ls "$1"/rxmemory/_rxmemory*.so >/dev/null 2>&1; then
  echo "python_tests: the extension was not built in $1 (python3-dev, pybind11-dev): skipped"
  exit 77
fi
export PYTHONPATH="$1" RXMEMORY_BROKER="$2"
unset RXMEMORY_URL
cd "$(dirname "$0")" && exec /usr/bin/python3 -m pytest -q -p no:cacheprovider .
