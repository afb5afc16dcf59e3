# Sourced by the Chromium test: tool checks, the broker on free ports, chromedriver with a
# headless Chromium session, WebDriver commands, and their cleanup at exit. Waits are bounded.

. "$(dirname "${BASH_SOURCE[0]}")/../support/testlib.sh"
chromium_bin=$(command -v chromium || command -v chromium-browser || true)
[ -n "$chromium_bin" ] || skip "chromium not installed (scripts/install-deps installs it)"
for tool in chromedriver curl jq; do
  command -v "$tool" >/dev/null 2>&1 || skip "$tool not installed (scripts/install-deps installs it)"
done

work=$(mktemp -d /tmp/rxchromium-XXXXXX)
broker_pid= driver_pid= driver= session=
cleanup() {
  # Quitting the session ends the browser; chromedriver runs in a process
  # group of its own, so anything of the browser still left goes with it.
  if [ -n "$session" ]; then curl -s --max-time 10 -X DELETE "$driver/session/$session" >/dev/null || true; fi
  if [ -n "$driver_pid" ]; then kill -- "-$driver_pid" 2>/dev/null || true; fi
  for pid in $driver_pid $broker_pid; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT

# start_broker RXBROKER: rxbroker on ports the system picks; sets $url (its
# endpoint) and $http (its HTTP pages, no trailing slash).
start_broker() {
  "$1" --listen tcp://127.0.0.1:0 --http 127.0.0.1:0 --data-path "$work" --log '*=error' \
    >"$work/broker.out" 2>"$work/broker.err" &
  broker_pid=$!
  poll 10 grep -q 'press Ctrl-C' "$work/broker.out" || fail "rxbroker did not start: $(cat "$work/broker.err")"
  url=$(sed -n 's/^rxbroker: listening on //p' "$work/broker.out")
  http=$(sed -n 's|^rxbroker: status pages on \(.*\)/RXMemory$|\1|p' "$work/broker.out")
}

# start_browser: chromedriver on a port it picks and a headless Chromium
# session that keeps the browser's log; sets $driver and $session.
start_browser() {
  setsid chromedriver --port=0 >"$work/driver.out" 2>&1 &
  driver_pid=$!
  poll 10 grep -q 'started successfully on port' "$work/driver.out" || fail "chromedriver did not start"
  driver=http://127.0.0.1:$(sed -n 's/.*started successfully on port \([0-9]*\).*/\1/p' "$work/driver.out")
  session=$(wd POST /session "$(jq -nc --arg bin "$chromium_bin" --arg dir "$work/profile" '{capabilities: {alwaysMatch: {
    "goog:chromeOptions": {binary: $bin, args: ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
      "--no-first-run", "--disable-background-networking", "--disable-component-update", "--disable-sync",
      "--window-size=1200,900", "--user-data-dir=" + $dir]}, "goog:loggingPrefs": {browser: "ALL"}}}}')" |
    jq -r '.sessionId')
  [ -n "$session" ] && [ "$session" != null ] || fail "no WebDriver session"
}

wd() {  # METHOD PATH [JSON]: one WebDriver command; prints its "value"
  local answer
  answer=$(curl -s --max-time 60 -X "$1" -H 'Content-Type: application/json' "$driver$2" ${3:+-d "$3"}) ||
    fail "WebDriver $1 $2: no answer"
  if [ "$(jq -r 'try .value.error // empty' <<<"$answer")" != "" ]; then
    fail "WebDriver $1 $2: $(jq -r '.value.message' <<<"$answer" | head -3)"
  fi
  jq -c '.value' <<<"$answer"
}

open_url() { wd POST "/session/$session/url" "$(jq -nc --arg url "$1" '{url: $url}')" >/dev/null; }

# run_js SCRIPT: runs SCRIPT in the page (WebDriver may, whatever the page's
# policy) and prints what it returns, as JSON.
run_js() { wd POST "/session/$session/execute/sync" "$(jq -nc --arg s "$1" '{script: $s, args: []}')"; }

# The messages of the browser's log since the last call.
browser_log() { wd POST "/session/$session/se/log" '{"type": "browser"}' | jq -r '.[].message'; }

# wait_for SECONDS JS_CONDITION WHAT: polls the page's DOM until the condition
# holds (the page is pushed its changes; only the test polls).
js_true() { [ "$(run_js "return Boolean($1)")" = true ]; }
wait_for() {
  poll "$1" js_true "$2" || fail "$3 not seen within $1 s: $(run_js 'return document.body.innerText' | head -c 600)"
}

# check_policy PATH POLICY: the answer to PATH is 200 with exactly POLICY.
check_policy() {
  curl -si --max-time 10 "$http$1" >"$work/answer.txt" || fail "curl $1 failed"
  head -1 "$work/answer.txt" | grep -q '^HTTP/1.1 200' || fail "$1: $(head -1 "$work/answer.txt")"
  local csp
  csp=$(grep -i '^Content-Security-Policy:' "$work/answer.txt" | tr -d '\r' || true)
  [ "$csp" = "Content-Security-Policy: $2" ] || fail "$1: policy '$csp', expected '$2'"
}
