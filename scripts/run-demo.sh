#!/usr/bin/env bash
# A guided walk through libzorvel against the simulated daemon, on a private
# bus that stands in for the system bus. Builds what it needs, then runs:
#   1. launcher_example: Init, broadcast, stored profiles, connect, stop
#   2. zorvelctl: profiles (as JSON), connect, delete (and a refused one)
#   3. a daemon restart: commands issued while the daemon is away are held,
#      then reach the new daemon instance in the order they were issued
#   4. zorvelctl stop
# Lines of the application (the example or zorvelctl) start with "app |",
# the simulated daemon's lines of the same step follow with "sim |".
#
# Environment: ZORVEL_DEMO_BUILD_DIR (default build/demo), ZORVEL_BUILD_JOBS
# (default: the number of cores). Exits 0 when every step did what it shows;
# it leaves no process behind.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${ZORVEL_DEMO_BUILD_DIR:-${root}/build/demo}
jobs=${ZORVEL_BUILD_JOBS:-$(nproc)}

bold=$'\e[1m' plain=$'\e[0m'
[[ -t 1 ]] || bold='' plain=''

say() { printf '%s\n' "$*"; }
step() { printf '\n%s== %s%s\n' "${bold}" "$*" "${plain}"; }
die() {
  printf 'demo: %s\n' "$*" >&2
  exit 1
}

# --- set-up -----------------------------------------------------------------

if [[ -x "${root}/scripts/setup-deps.sh" ]]; then
  "${root}/scripts/setup-deps.sh"
fi

step "Building (${build}, RelWithDebInfo)"
cmake -S "${root}" -B "${build}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZORVEL_BUILD_TESTS=OFF -DZORVEL_BUILD_BENCH=OFF -DZORVEL_BUILD_FUZZ=OFF \
  -DZORVEL_BUILD_TOOLS=ON -DZORVEL_BUILD_EXAMPLES=ON >/dev/null
cmake --build "${build}" -j "${jobs}" \
  --target zorvel-sim zorvelctl launcher_example held_commands_example >/dev/null
sim_bin=${build}/tools/zorvel-sim/zorvel-sim
ctl_bin=${build}/tools/zorvelctl/zorvelctl
example_bin=${build}/examples/launcher_example
held_bin=${build}/examples/held_commands_example

work=$(mktemp -d /tmp/zorvel-demo.XXXXXX)
bus_pid='' sim_pid='' app_pid=''
cleanup() {
  local pid
  for pid in "${app_pid}" "${sim_pid}" "${bus_pid}"; do
    [[ -n "${pid}" ]] || continue
    kill -TERM "${pid}" 2>/dev/null || true
    wait "${pid}" 2>/dev/null || true
  done
  rm -rf "${work}"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Polls `command...` every 100 ms until it succeeds; fails after `seconds`.
wait_for() {
  local seconds=$1 what=$2
  shift 2
  local tries=$((seconds * 10))
  until "$@" >/dev/null 2>&1; do
    ((tries-- > 0)) || die "timed out waiting for ${what}"
    sleep 0.1
  done
}

step "Starting a private bus and the simulated daemon"
config=${root}/data/private-bus.conf
bus_args=(--config-file="${config}")
[[ -f "${config}" ]] || bus_args=(--session) # any policy that lets us own names
dbus-daemon "${bus_args[@]}" --nofork --address="unix:dir=${work}" --print-address=1 \
  >"${work}/bus.address" 2>"${work}/bus.log" &
bus_pid=$!
wait_for 10 "the private bus" test -s "${work}/bus.address"
DBUS_SYSTEM_BUS_ADDRESS=$(head -n 1 "${work}/bus.address")
export DBUS_SYSTEM_BUS_ADDRESS
say "bus: ${DBUS_SYSTEM_BUS_ADDRESS} (as the system bus, through DBUS_SYSTEM_BUS_ADDRESS)"

has_owner() {
  gdbus call --system --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
    --method org.freedesktop.DBus.NameHasOwner "$1" | grep -q true
}
has_no_owner() { ! has_owner "$1"; }
sim() { gdbus call --system --dest zorvel.sim --object-path /zorvel/sim --method "zorvel.sim.Control.$1" "${@:2}"; }

"${sim_bin}" --profile '1:Living room' --profile '2:Guest room' --profile '3:Café ☕' \
  --instance '101:Kitchen speaker' --instance '102:Hall display' >"${work}/sim.log" 2>&1 &
sim_pid=$!
wait_for 10 "zorvel.sim" has_owner zorvel.sim
wait_for 10 "zorvel.dbus.service" has_owner zorvel.dbus.service

# Prints the lines of FILE past the first SEEN ones with PREFIX; leaves the
# new line count in `seen`. Repeated lines are shown once with a count (a
# broadcast repeats each instance every 200 ms).
seen=0
show_new() {
  local file=$1 prefix=$2 lines
  seen=$3
  lines=$(wc -l <"${file}")
  tail -n +"$((seen + 1))" "${file}" | head -n "$((lines - seen))" | sed -e 's/^zorvel-sim: //' |
    awk -v prefix="${prefix}" '{ if (!count[$0]++) order[n++] = $0 }
      END { for (i = 0; i < n; i++) printf "%s | %s%s\n", prefix, order[i], (count[order[i]] > 1 ? "   (x" count[order[i]] ")" : "") }'
  seen=${lines}
}
sim_seen=0
show_sim() {
  sleep 0.2 # the sim prints right after it answered: let the last line land
  show_new "${work}/sim.log" sim "${sim_seen}"
  sim_seen=${seen}
}
# Runs an application command with its output prefixed; returns its status.
app() {
  say "\$ ${1##*/}${2:+ ${*:2}}"
  local status=0
  "$@" >"${work}/app.out" 2>&1 || status=$?
  show_new "${work}/app.out" app 0
  return "${status}"
}
expect() { # expect STATUS command...
  local want=$1 status=0
  shift
  app "$@" || status=$?
  show_sim
  ((status == want)) || die "'${1##*/} ${*:2}' exited ${status}, expected ${want}"
}
show_sim

# --- the walk ---------------------------------------------------------------

step "1. An application's whole lifecycle (examples/launcher_example.cpp)"
expect 0 "${example_bin}"

step "2. zorvelctl: stored profiles as JSON, connect, delete, a refused delete"
expect 0 "${ctl_bin}" --json profiles
expect 0 "${ctl_bin}" connect 102
expect 0 "${ctl_bin}" delete 3
expect 1 "${ctl_bin}" --json delete 3 # gone now: the daemon refuses, and its answer says so

step "3. The daemon restarts: held commands reach the new instance in order"
sim ReleaseName >/dev/null
wait_for 10 "the name to be released" has_no_owner zorvel.dbus.service
sim ClearCalls >/dev/null
say "(the sim released zorvel.dbus.service: the daemon is away)"
show_sim
expect 3 "${ctl_bin}" profiles --timeout 1

say "\$ ${held_bin##*/} 101 2 &"
"${held_bin}" 101 2 >"${work}/held.out" 2>&1 &
app_pid=$!
wait_for 10 "the example to issue its commands" grep -q 'issued readProfiles' "${work}/held.out"
show_new "${work}/held.out" app 0
held_seen=${seen}
sleep 2 # the library retries every 500 ms; nothing reaches the daemon meanwhile
show_sim
say "(held: the sim received $(sim GetCalls | grep -o "'[a-zA-Z]*', ':" | wc -l) calls so far)"
owner=$(sim AcquireName | grep -o ":[0-9.]*")
say "(the sim owns zorvel.dbus.service again, as ${owner})"
status=0
wait "${app_pid}" || status=$?
app_pid=''
show_new "${work}/held.out" app "${held_seen}"
show_sim
((status == 0)) || die "held_commands_example exited ${status}"
calls=$(sim GetCalls | grep -oE "'[a-zA-Z]+', ':[0-9.]+', <[^>]*>" | sed -E -e "s/'([a-zA-Z]+)', '(:[0-9.]+)', <(.*)>/\1 \3 from \2/" -e 's/@av \[\]/()/')
say "calls that the new instance (${owner}) received, in order (GetCalls):"
while read -r call; do say "  ${call}"; done <<<"${calls}"
order=$(awk '{ printf "%s ", $1 }' <<<"${calls}")
[[ "${order}" == "connect deleteStoredProfile readProfiles " ]] || die "unexpected order: ${order}"

step "4. Stop"
expect 0 "${ctl_bin}" stop

step "Done: every step behaved as shown"
