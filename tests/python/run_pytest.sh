#!/usr/bin/env bash
# run_pytest.sh BUILD_PYTHON_DIR RXBROKER: the Python package's tests against a real broker;
# skipped without pytest or without the extension (python3-dev, pybind11-dev at configure time).
set -u
. "$(dirname "$0")/../support/testlib.sh"
/usr/bin/python3 -c 'import pytest' 2>/dev/null || skip "python3-pytest is not installed (scripts/install-deps)"
ls "$1"/rxmemory/_rxmemory*.so >/dev/null 2>&1 || skip "the extension was not built in $1 (python3-dev, pybind11-dev)"
export PYTHONPATH="$1" RXMEMORY_BROKER="$2"
unset RXMEMORY_URL
cd "$(dirname "$0")" && exec /usr/bin/python3 -m pytest -q -p no:cacheprovider .
