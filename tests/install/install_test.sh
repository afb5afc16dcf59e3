#!/usr/bin/env bash
# The product as a user gets it: installed into a fresh prefix that names no
# build tree, examples and the README's program built against it, its broker
# serving them, and the Debian package's contents.
# Usage: install_test.sh BUILD_DIR SOURCE_DIR. Exits 77 (skipped) when a tool is missing.
set -uo pipefail

build=$(cd "$1" && pwd -P)
src=$(cd "$2" && pwd -P)

. "$(dirname "$0")/../support/testlib.sh"

for tool in cmake cpack pkg-config readelf strings dpkg-deb dpkg-shlibdeps dpkg c++ curl; do
  command -v "$tool" >/dev/null || skip "$tool is not installed (scripts/install-deps installs it)"
done

work=$(mktemp -d "${TMPDIR:-/tmp}/rx-install-test.XXXXXX") || fail "mktemp"
work=$(cd "$work" && pwd -P)
case "$work/" in "$build"/* | "$src"/*) fail "the temporary folder $work lies in the tree it must not name" ;; esac
brokers=()
cleanup() {
  for pid in "${brokers[@]}"; do kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT

# Runs a command quietly; on failure shows its output and fails the test.
run() {
  "$@" >"$work/step.log" 2>&1 || { cat "$work/step.log"; fail "$*"; }
}
expect() {  # expect NAME EXPECTED ACTUAL
  [[ "$2" == "$3" ]] || fail "$(printf '%s: expected\n%s\ngot\n%s' "$1" "$2" "$3")"
}

# No file names the build or source tree; every ELF file's RUNPATH is
# relative to its own location.
check_tree() {
  local root=$1 f runpath
  while IFS= read -r -d '' f; do
    if strings -a "$f" | grep -qF -e "$build" -e "$src"; then
      fail "$f names the build tree: $(strings -a "$f" | grep -F -e "$build" -e "$src" | head -3)"
    fi
    readelf -h "$f" >/dev/null 2>&1 || continue
    runpath=$(readelf -d "$f" | sed -n 's/.*(R\(UN\)\?PATH).*\[\(.*\)\]/\2/p')
    local IFS=:
    for entry in $runpath; do
      [[ $entry == '$ORIGIN'* ]] || fail "$f has a RUNPATH entry not relative to \$ORIGIN: $runpath"
    done
  done < <(find "$root" -type f -print0)
}

# ---- Install ----
prefix=$work/prefix
run cmake --install "$build" --prefix "$prefix"
check_tree "$prefix"
pcfile=$(find "$prefix" -name rxmemory.pc)
export PKG_CONFIG_PATH=$(dirname "$pcfile")
version=$(pkg-config --modversion rxmemory) || fail "pkg-config cannot read $pcfile"
[[ $version =~ ^[0-9]+\.[0-9]+\.[0-9]+$ ]] || fail "rxmemory.pc gives version '$version'"
for program in rxbroker rxmemory; do
  line=$("$prefix/bin/$program" --version) || fail "$program --version failed"
  [[ $line =~ ^$program\ ${version//./\\.}\ \(git\ revision\ ([0-9a-f]{7,}|unknown)\)$ ]] ||
    fail "$program --version printed '$line', expected version $version and a git revision"
done

# Every installed header compiles with only the installed headers on the path.
(cd "$prefix/include/rxmemory" && find . -name '*.h' | sed 's|^\./|#include "|; s|$|"|') >"$work/all_headers.cpp"
run c++ -std=c++17 -fsyntax-only $(pkg-config --cflags rxmemory) "$work/all_headers.cpp"

# ---- Examples and the README's program against the installed prefix ----
run cmake -S "$src/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release
expect "RXMemory found by the examples" "RXMemory_DIR:PATH=$(dirname "$(find "$prefix" -name RXMemoryConfig.cmake)")" \
  "$(grep '^RXMemory_DIR:' "$work/examples/CMakeCache.txt")"
run cmake --build "$work/examples" -j2
run cmake --install "$work/examples"  # the module into the installed module folder

awk '/^```cpp$/ {keep = 1; next} /^```$/ {keep = 0} keep' "$src/README.md" >"$work/readme.cpp"
pc_build() {  # pc_build OUTPUT SOURCE
  run c++ -std=c++17 -o "$1" "$2" $(pkg-config --cflags --libs rxmemory) \
    -Wl,-rpath,"$(pkg-config --variable=libdir rxmemory)"
}
pc_build "$work/readme" "$work/readme.cpp"
pc_build "$work/pc_client" "$src/examples/client/client.cpp"

# ---- The installed broker ----
wait_line() { poll 20 grep -qF "$2" "$1"; }  # wait_line FILE TEXT
start_broker() {  # start_broker NAME ARGS...
  "$prefix/bin/rxbroker" ${http_args:---no-http} "${@:2}" >"$work/$1.out" 2>"$work/$1.err" &
  brokers+=($!)
  wait_line "$work/$1.out" 'press Ctrl-C' || fail "rxbroker ${*:2} was not ready within 20 s: $(cat "$work/$1".{out,err})"
}
stop_broker() {  # stop_broker: the last one started
  local pid=${brokers[-1]}
  kill -INT "$pid"
  wait "$pid" || fail "rxbroker exited with status $? on SIGINT"
  unset 'brokers[-1]'
}

# The live view's files come from the installed data folder.
http_args="--http 127.0.0.1:0" start_broker live --listen "unix://$work/live.sock"
live=$(sed -n 's|^rxbroker: live view on ||p' "$work/live.out")
for file in live.html live.js live.css; do
  path=$live/$file
  [[ $file == live.html ]] && path=$live
  curl -sf --max-time 10 "$path" | cmp -s - "$src/web/live/$file" ||
    fail "$live does not serve the installed $file"
done
stop_broker

endpoint=unix://$work/broker.sock
start_broker main --listen "$endpoint" --module counter
expect "modules loaded by name" "rxbroker: modules: RXMemory Counter" "$(grep 'modules:' "$work/main.out")"

expected_client="stored Example/Battery = 87
followed Example/Battery = 86
followed Example/Battery = 85"
expect "client example (find_package)" "$expected_client" "$("$work/examples/client/rxmemory_example_client" "$endpoint" 2>"$work/c1.err")"
expect "client example (pkg-config)" "$expected_client" "$("$work/pc_client" "$endpoint" 2>"$work/c2.err")"
expect "README program" "Robot/Battery = 87" "$("$work/readme" "$endpoint" 2>"$work/c3.err")"
expect "event callback example" 'called back: Example/Bumped = 1 ("")
called back: Example/Bumped = 2 ("")
called back: Example/Bumped = 3 ("")
called back: Example/Bumped = 4 ("")' \
  "$("$work/examples/event_callback/rxmemory_example_event_callback" "$endpoint" 4 2>"$work/c4.err")"
rxmemory() { "$prefix/bin/rxmemory" --url "$endpoint" "$@" 2>&1; }
counter() { rxmemory --module Counter call increment '"Robot/Steps"'; }
expect "broker module called twice, then the key it counts in" $'1\n2\n2' "$(counter; counter; rxmemory get Robot/Steps)"

# The Python package, when the build made it: it imports from the prefix, and
# its examples run against the installed broker as their README says.
if [[ -d $build/python/rxmemory ]]; then
  init=$(find "$prefix" -path '*/rxmemory/__init__.py')
  [[ -n $init ]] || fail "the Python package is not installed"
  export PYTHONPATH=$(dirname "$(dirname "$init")") RXMEMORY_URL=$endpoint
  /usr/bin/python3 "$src/examples/python/bump_reactor.py" --count 2 >"$work/reactor.out" 2>"$work/reactor.err" &
  reactor=$!
  wait_line "$work/reactor.out" "waiting for Robot/Bumped" || fail "bump_reactor.py did not start: $(cat "$work/reactor.err")"
  rxmemory raise Robot/Bumped '"left"' >/dev/null
  rxmemory raise Robot/Bumped '"right"' >/dev/null
  wait "$reactor" || fail "bump_reactor.py exited with $?: $(cat "$work/reactor.err")"
  expect "bump_reactor.py output" "waiting for Robot/Bumped
bump 1: 'left' -> Robot/LastBump
bump 2: 'right' -> Robot/LastBump" "$(cat "$work/reactor.out")"
  expect "the key bump_reactor.py writes" '["right", 2]' "$(rxmemory get Robot/LastBump)"
  unset PYTHONPATH RXMEMORY_URL
fi
stop_broker

# The broker's log: every line stamped; the optional map file looked for in the installed
# data folder; clients that came and went normally leave no warning and no info line.
while IFS= read -r line; do
  [[ $line =~ ^[0-9]{4}-[0-9]{2}-[0-9]{2}\ [0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}\ \[rx\]\  ]] ||
    fail "log line without its timestamp: $line"
done <"$work/main.err"
grep -qF "looked for rxmemory_map_signal_event.txt in $prefix/share/rx/tavro; the file is optional" "$work/main.err" ||
  fail "no line saying where the map file was looked for: $(cat "$work/main.err")"
expect "warnings of the broker" "[rx] [warning] [rxmemory] Can't not open file rxmemory_map_signal_event.txt" \
  "$(grep -o '\[rx\] \[warning\].*' "$work/main.err")"
! grep -E '\[info\] \[net\.(server|peer)\] .*(connected|disconnected)' "$work/main.err" ||
  fail "client connections logged at info level"

# A module given by path; an unknown name says where it was looked for.
start_broker bypath --listen "unix://$work/bypath.sock" --module "$work/examples/broker_module/libcounter.so"
expect "module loaded by path" "rxbroker: modules: RXMemory Counter" "$(grep 'modules:' "$work/bypath.out")"
stop_broker
moduledir=$(dirname "$(find "$prefix" -name librxmemory.so)")
expect "unknown module" "rxbroker: cannot load nosuch: cannot open shared object file: No such file or directory \
(looked for libnosuch.so and nosuch in $moduledir, $prefix/bin)" \
  "$("$prefix/bin/rxbroker" --no-http --listen "unix://$work/none.sock" --module nosuch 2>&1 >/dev/null |
    grep '^rxbroker:')"

# ---- The Debian package ----
run cpack --config "$build/CPackConfig.cmake" -B "$work/package"
deb=$work/package/rxmemory_${version}_$(dpkg --print-architecture).deb
[[ -f $deb ]] || fail "cpack made no $(basename "$deb"): $(ls "$work/package")"
files=$(dpkg-deb -c "$deb" | awk '{print $6}' | grep -v '/$')
outside=$(grep -v '^\./usr/' <<<"$files")
[[ -z $outside ]] || fail "the package installs outside /usr: $outside"
for wanted in '/usr/bin/rxbroker' '/usr/bin/rxmemory' '/usr/lib/(.*/)?librxplatform\.so\.[0-9.]+' \
  '/usr/lib/(.*/)?rxmemory/modules/librxmemory\.so' '/usr/include/rxmemory/net/clientsession\.h' \
  '/usr/include/rxmemory/rx/rxversion\.h' '/usr/lib/(.*/)?cmake/RXMemory/RXMemoryConfigVersion\.cmake' \
  '/usr/lib/(.*/)?pkgconfig/rxmemory\.pc' '/usr/lib/systemd/system/rxbroker\.service' \
  '/usr/share/rx/tavro/rxmemory_map_signal_event\.txt\.example' '/usr/share/rx/web/live/live\.js' \
  '/usr/share/bash-completion/completions/rxmemory' \
  '/usr/lib/python3/dist-packages/rxmemory/__init__\.py' '/usr/lib/python3/dist-packages/rxmemory/__init__\.pyi' \
  '/usr/lib/python3/dist-packages/rxmemory/_rxmemory\.cpython-[^/]*\.so'; do
  grep -qE "^\.$wanted\$" <<<"$files" || fail "the package has no $wanted:
$files"
done
depends=$(dpkg-deb -f "$deb" Depends)
for library in libc6 libstdc++6 libspdlog libcpp-httplib libssl3; do
  [[ $depends == *"$library"* ]] || fail "the package does not depend on $library: $depends"
done
run dpkg-deb -x "$deb" "$work/unpacked"
check_tree "$work/unpacked"
unit=$work/unpacked/usr/lib/systemd/system/rxbroker.service
for setting in 'ExecStart=/usr/bin/rxbroker --data-path /etc/rxmemory' DynamicUser=yes NoNewPrivileges=yes \
  ProtectSystem=strict Restart=on-failure; do
  grep -qxF "$setting" "$unit" || fail "rxbroker.service lacks $setting"
done

echo "install test: the installed prefix, the examples and the package are as they should be"
