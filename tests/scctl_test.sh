#!/bin/bash
# The transcripts in tests/scctl are what scctl says: each "$ command" is run, in a private world for
# each transcript, and what it prints on both streams and an exit status other than 0, as "[status]",
# are compared with the lines that follow.
# usage: tests/scctl_test.sh [EMULATOR...] SCCTL
#        tests/scctl_test.sh --inside TRANSCRIPT [EMULATOR...] SCCTL   prints the transcript as it is
set -uo pipefail

root=$(readlink -f "$(dirname "$0")/..")

if [[ ${1:-} == --inside ]]; then
  transcript=$2
  program=("${@:3}")
  scctl() { "${program[@]}" "$@"; }
  cd /var || exit 1
  while IFS= read -r line; do
    if [[ $line == '#'* || -z $line ]]; then
      echo "$line"
    elif [[ $line == '$ '* ]]; then
      echo "$line"
      eval "${line:2}" 2>&1 </dev/null
      status=$?
      [[ $status == 0 ]] || echo "[$status]"
    fi
  done <"$transcript"
  exit 0
fi

failed=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for transcript in "$root"/tests/scctl/*.txt; do
  "$root/examples/private_world" "$0" --inside "$transcript" "$@" >"$work/said" 2>&1
  if ! diff -u --label "$transcript" --label said "$transcript" "$work/said"; then
    failed=1
  fi
done
exit "$failed"
