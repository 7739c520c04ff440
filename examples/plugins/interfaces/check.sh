#!/bin/bash
# Tries the plugin with a real daemon and a real kernel, in a network namespace of its own.
#   check.sh [BUILD]   the build tree, by default build/release
# Ends with 0 when all is as it should be, with 77 when this machine allows no such namespace.
set -euo pipefail

repository=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../.." && pwd)
build=$(realpath "${1:-$repository/build/release}")

if [[ ${EX_INTERFACES_INSIDE-} != yes ]]; then
  if ! unshare --map-root-user --net ip link add probe type veth peer name probe-peer 2>/dev/null; then
    echo "check: skipped, no network namespace with interfaces can be made here"
    exit 77
  fi
  EX_INTERFACES_INSIDE=yes exec unshare --map-root-user --net "${BASH_SOURCE[0]}" "$build"
fi

dir=$(mktemp -d)
pids=()
clean_up() {
  (( ${#pids[@]} == 0 )) || kill "${pids[@]}" 2>/dev/null || true
  wait
  rm -rf "$dir"
}
trap clean_up EXIT

fail() {
  echo "check: FAILED: $1" >&2
  tail -n 20 "$dir"/*.log >&2
  exit 1
}

# wait_for WHAT COMMAND...: until the command succeeds, five seconds at most.
wait_for() {
  local what=$1 i
  shift
  for ((i = 0; i < 50; i++)); do
    "$@" >/dev/null 2>&1 && { echo "ok: $what"; return; }
    sleep 0.1
  done
  fail "$what"
}

send() { "$build/bin/ymgr-send" "$dir" "$@" 2>&1 || true; } # a refused request is looked at by its caller

# commit CONFIG: of the list of interfaces.
commit() {
  send "<edit-config><target><candidate/></target><config><interfaces xmlns='urn:ex-interfaces'
    xmlns:nc='urn:ietf:params:xml:ns:netconf:base:1.0'>$1</interfaces></config></edit-config>" '<commit/>' |
    tee "$dir/reply"
}

# Outputs are taken whole: behind a pipe, `grep -q` would end `ip` early, and that would count as a failure.
has_address() { [[ $(ip -o address show dev "$1") == *" $2 "* ]]; }
has_no_address() { [[ $(ip -o address show dev "$1") != *" $2 "* ]]; }
has_mtu() { [[ $(ip -o link show "$1") == *" mtu $2 "* ]]; }
is_up() { [[ $(ip -o link show "$1") =~ [\<,]UP[,\>] ]]; }
is_refused() { grep -q "$1" "$dir/reply"; }
state_shows() {
  local reply
  reply=$(send '<get><filter type="subtree"><interfaces-state xmlns="urn:ex-interfaces"/></filter></get>' | tr -d '\n ')
  [[ $reply == *"$1"* ]]
}

start_plugin() {
  "$build/bin/ymgr-example-interfaces" --run-dir "$dir" 2>>"$dir/plugin.log" &
  plugin=$!
  pids+=("$plugin")
}

mkdir "$dir/modules"
cp "$repository"/modules/*.yang "$repository"/examples/plugins/interfaces/*.yang "$dir/modules/"
sed -e "s|/tmp/ymgr/redis.sock|$dir/redis.sock|" -e '/"ex-[bes]/d' \
  -e '/"ex-types"/s|.*|    {"name": "ex-interfaces", "revision": "2026-01-01"}|' \
  "$repository/examples/ymgrd.conf" >"$dir/ymgrd.conf"
redis-server --port 0 --unixsocket "$dir/redis.sock" --save '' --dir "$dir" >"$dir/redis.log" &
pids+=($!)
wait_for "the database answers" redis-cli -s "$dir/redis.sock" ping
"$build/bin/ymgrd" --profile "$dir/ymgrd.conf" --run-dir "$dir" --log-stderr 2>"$dir/ymgrd.log" &
pids+=($!)
wait_for "the daemon listens" test -S "$dir/agent.sock"
ip link add v0 type veth peer name v1
ip address add 198.51.100.7/24 dev v0 # somebody else's
start_plugin
wait_for "the plugin is ready, state is there" state_shows '<name>v0</name><oper-status>down'

address() { echo "<address><ip>$1</ip><prefix-length>$2</prefix-length></address>"; }
commit "<interface><name>v0</name><mtu>1400</mtu>$(address 192.0.2.1 24)$(address 2001:db8::1 64)</interface>" >/dev/null
wait_for "v0 is configured" has_address v0 192.0.2.1/24
wait_for "... with IPv6" has_address v0 2001:db8::1/64
wait_for "... and its mtu" has_mtu v0 1400
wait_for "... and is up" is_up v0
ip link set v1 up
wait_for "an event changed the state" state_shows '<name>v0</name><oper-status>up'
wait_for "... and is a notification" grep -q '<link-change' <(redis-cli -s "$dir/redis.sock" -n 10 lrange event_key_list 0 -1)

commit "<interface><name>v0</name><mtu>1300</mtu></interface><interface><name>none</name></interface>" >/dev/null
wait_for "an unknown interface is refused" is_refused "There is no interface none"
wait_for "... and the change of v0 taken back" has_mtu v0 1400
send '<discard-changes/>' >/dev/null
commit "<interface><name>v0</name><mtu>70000</mtu>$(address 192.0.2.9 24)</interface>" >/dev/null
wait_for "the kernel's refusal is told" is_refused "Can not set the mtu of interface v0"
wait_for "... nothing of the change stays" has_no_address v0 192.0.2.9/24
send '<discard-changes/>' >/dev/null

kill "$plugin"
wait "$plugin" || fail "the plugin did not end well"
commit "<interface><name>v0</name><address nc:operation='delete'><ip>192.0.2.1</ip></address></interface>" >/dev/null
wait_for "without the plugin nothing happens" has_address v0 192.0.2.1/24
start_plugin
wait_for "at its start it takes away what it had set" has_no_address v0 192.0.2.1/24
wait_for "... not what is configured" has_address v0 2001:db8::1/64
wait_for "... nor what others have set" has_address v0 198.51.100.7/24
echo "check: all is well"
