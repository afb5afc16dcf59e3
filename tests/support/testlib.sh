# Sourced by the shell tests: failing, skipping (exit 77, which ctest reports
# as skipped) and bounded polling.
fail() {
  echo "FAIL: $*" >&2
  exit 1
}
skip() {
  echo "SKIPPED: $*"
  exit 77
}

# poll SECONDS COMMAND...: runs COMMAND until it succeeds; returns 1 once
# SECONDS have passed without.
poll() {
  local deadline=$((SECONDS + $1))
  shift
  until "$@"; do
    [ $SECONDS -lt $deadline ] || return 1
    sleep 0.05
  done
}
