#!/bin/bash
# Runs of the box that are ended from outside leave no emulator and no half image, the next one starts
# clean, and two at a time do not meet. Needs what ./demo --device made; tools/check runs it.
set -euo pipefail
cd "$(dirname "$0")/.."

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
complain() {
  echo "device_runs_test: $1" >&2
  failed=1
}

# begin NAME: starts a run and waits until its router works; sets run and emulator.
begin() {
  device/run "$work/$1.img" >"$work/$1.log" 2>&1 &
  run=$!
  for ((i = 0; i < 600; i++)); do
    grep -qs 'router# router add' "$work/$1.log" && break
    sleep 0.1
  done
  emulator=$(pgrep -P "$run" qemu-system) || complain "$1: no emulator is running"
}

for signal in INT TERM KILL; do
  # A shell starts its background jobs with SIGINT ignored; Python then leaves it so.
  [[ $signal == INT ]] && set -m
  begin "$signal"
  set +m
  kill -"$signal" "$run"
  wait "$run" && complain "$signal: the run ended with status 0"
  for ((i = 0; i < 50; i++)); do
    kill -0 "$emulator" 2>/dev/null || break
    sleep 0.1
  done
  kill -0 "$emulator" 2>/dev/null && complain "$signal: the emulator is still there"
  [[ -z $(ls "$work/$signal.img"* 2>/dev/null) ]] || complain "$signal: part of an image is there"
done

begin one && one=$run
begin two && two=$run
for run in "$one" "$two"; do
  wait "$run" || complain "of two runs at once one ended with status $?"
done
for image in one two; do
  [[ $(stat -c %s "$work/$image.img") == 8388608 ]] || complain "$image.img is no whole image"
done
exit $failed
