#!/bin/bash
# The box from its first boot to its fourth, two of them at a time, which do not meet; and runs that
# are ended from outside, which leave no emulator and no half image. tools/check runs it.
set -euo pipefail
cd "$(dirname "$0")/.."

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
complain() {
  echo "device_runs_test: $1" >&2
  failed=1
}

declare -A runs

# begin NAME COMMAND...: starts a run whose image is NAME.
begin() {
  "${@:2}" "$work/$1.img" >"$work/$1.log" 2>&1 &
  runs[$1]=$!
}

# Whether the router of a run is up.
up() {
  grep -qs 'router# router add' "$work/$1.log"
}

# lives PID: a process that ended and that nobody has waited for does not. Where the first process of
# a container waits for nobody, an emulator whose run was killed stays like that.
lives() {
  grep -qsE '^State:[[:space:]]+[^ZX[:space:]]' "/proc/$1/status"
}

# The image that they boot is made once; what runs at the same time then finds it.
begin one ./demo --device
until up one || ! lives "${runs[one]}"; do sleep 0.1; done
begin two device/run
for signal in INT TERM KILL; do
  # A shell starts its background jobs with SIGINT ignored, and Python then leaves it so.
  begin "$signal" env --default-signal=INT device/run
done

# end SIGNAL EMULATOR: ends the run of this name.
end() {
  local run=${runs[$1]} emulator=$2
  # So that it does not end by itself, with its next word on a console that nobody reads.
  kill -STOP "$emulator"
  kill -"$1" "$run"
  wait "$run" && complain "$1: the run ended with status 0"
  for ((i = 0; i < 50; i++)); do
    lives "$emulator" || break
    sleep 0.1
  done
  if lives "$emulator"; then
    complain "$1: the emulator is still there"
    kill -KILL "$emulator"
  fi
  [[ -z $(ls "$work/$1.img"* 2>/dev/null) ]] || complain "$1: part of an image is there"
}

declare -A running=([INT]=yes [TERM]=yes [KILL]=yes)
for ((tries = 0; tries < 600 && ${#running[@]}; tries++)); do
  for signal in "${!running[@]}"; do
    # Between its boots a run has no emulator.
    if up "$signal" && emulator=$(pgrep -P "${runs[$signal]}" qemu-system); then
      end "$signal" "$emulator"
      unset "running[$signal]"
    fi
  done
  sleep 0.1
done
for signal in "${!running[@]}"; do
  complain "$signal: the router did not come up"
  kill "${runs[$signal]}"
done
for run in one two; do
  wait "${runs[$run]}" || complain "$run: ended with status $?"
  [[ $(stat -c %s "$work/$run.img") == 8388608 ]] || complain "$run.img is no whole image"
done
# What the console shows as typed can be typed again.
grep -qF "router# scctl set lan_binds/2 'name=garden camera'" "$work/one.log" ||
  complain "a word with a blank is shown without quotes"

# A change that cut its maker off comes back, one that was tried when the power went is gone, and a
# confirmed one is there.
for run in one two; do
  [[ $(grep -E 'firewall: |session# scctl|^now cut|taken back: |  192\.168\.1\.99 ' "$work/$run.log") == \
    'session# scctl try --timeout 5 batch /tmp/rules
firewall: 192.168.1.20 is blocked, its session ends
firewall: 192.168.1.20 is not blocked
now cut
boot: scguard: a change that nobody confirmed is taken back: lan
now cut
 1  00:11:22:33:44:55  192.168.1.99     printer' ]] || complain "$run: the tries did not end as they should"
done
exit $failed
