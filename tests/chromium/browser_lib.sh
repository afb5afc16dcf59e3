# Shared by the Chromium tests (sourced): tool checks, the broker on free
# ports, chromedriver and a headless Chromium session, WebDriver commands,
# screenshots, and the cleanup of all of it at exit.
# After sourcing: $work (a scratch folder), fail, start_broker, start_browser,
# wd, open_url, run_js, save_screenshot. Every wait is bounded.

chromium_bin=$(command -v chromium || command -v chromium-browser || true)
[ -n "$chromium_bin" ] || { echo "SKIPPED: chromium not installed (scripts/install-deps installs it)"; exit 77; }
for tool in chromedriver curl jq; do
  command -v "$tool" >/dev/null 2>&1 || { echo "SKIPPED: $tool not installed (scripts/install-deps installs it)"; exit 77; }
done

work=$(mktemp -d /tmp/rxchromium-XXXXXX)
broker_pid= driver_pid= reader_pid= driver= session=
cleanup() {
  # Quitting the session ends the browser; chromedriver runs in a process
  # group of its own, so anything of the browser still left goes with it.
  if [ -n "$session" ]; then curl -s --max-time 10 -X DELETE "$driver/session/$session" >/dev/null || true; fi
  if [ -n "$driver_pid" ]; then kill -- "-$driver_pid" 2>/dev/null || true; fi
  for pid in $reader_pid $driver_pid $broker_pid; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# start_broker RXBROKER [ARGS...]: rxbroker on ports the system picks; sets
# $url (its endpoint) and $http (its HTTP pages, no trailing slash).
start_broker() {
  local bin=$1 line ready=
  shift
  mkfifo "$work/broker.out"
  "$bin" --listen tcp://127.0.0.1:0 --http 127.0.0.1:0 --data-path "$work" --log '*=error' "$@" \
    >"$work/broker.out" 2>"$work/broker.err" &
  broker_pid=$!
  exec 3<"$work/broker.out"
  url= http=
  # Each line must come within 10 s: a bounded wait on the broker's own words.
  while IFS= read -r -t 10 line <&3; do
    case "$line" in
      "rxbroker: listening on "*) url=${line#rxbroker: listening on } ;;
      "rxbroker: status pages on "*) http=${line#rxbroker: status pages on } ; http=${http%/RXMemory} ;;
      "rxbroker: press Ctrl-C to stop") ready=1; break ;;
    esac
  done
  [ -n "$ready" ] || fail "rxbroker did not start: $(cat "$work/broker.err")"
  [ -n "$url" ] && [ -n "$http" ] || fail "rxbroker did not say where it listens"
}

# start_browser: chromedriver on a port it picks and a headless Chromium
# session that keeps the browser's log; sets $driver and $session.
start_browser() {
  local line args
  mkfifo "$work/driver.out"
  setsid chromedriver --port=0 >"$work/driver.out" 2>&1 &
  driver_pid=$!
  exec 4<"$work/driver.out"
  while IFS= read -r -t 10 line <&4; do
    case "$line" in
      *"started successfully on port "*) driver=${line##* port } ; driver="http://127.0.0.1:${driver%.}"; break ;;
    esac
  done
  [ -n "$driver" ] || fail "chromedriver did not start"
  # Keep reading its output so that it never blocks on a full pipe.
  cat <&4 >/dev/null 2>&1 &
  reader_pid=$!
  args=$(jq -nc --arg dir "$(mktemp -d "$work/profile-XXXXXX")" '["--headless", "--no-sandbox", "--disable-gpu",
    "--disable-quic", "--no-first-run", "--disable-background-networking", "--disable-component-update",
    "--disable-sync", "--window-size=1200,900", "--user-data-dir=" + $dir]')
  session=$(wd POST /session "$(jq -nc --arg bin "$chromium_bin" --argjson args "$args" \
    '{capabilities: {alwaysMatch: {"goog:chromeOptions": {binary: $bin, args: $args},
      "goog:loggingPrefs": {browser: "ALL"}}}}')" | jq -r '.sessionId')
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

browser_log() { wd POST "/session/$session/se/log" '{"type": "browser"}'; }

# save_screenshot FILE MIN_BYTES: a PNG of the window, which must be larger
# than MIN_BYTES (a blank page compresses to a few KB).
save_screenshot() {
  local signature bytes
  rm -f "$1"
  wd GET "/session/$session/screenshot" | jq -r . | base64 -d >"$1" || fail "no screenshot"
  signature=$(od -An -tx1 -N8 "$1" | tr -d ' \n')
  [ "$signature" = "89504e470d0a1a0a" ] || fail "$1 is not a PNG ($signature)"
  bytes=$(wc -c <"$1")
  [ "$bytes" -gt "$2" ] || fail "the screenshot is nearly empty ($bytes bytes)"
}
