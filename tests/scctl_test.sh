#!/bin/bash
# A transcript is what scctl says: each "$ command" is run, in a private world, and what it prints
# on both streams, and an exit status other than 0 as "[status]", is compared with the lines that
# follow. The examples of a man page are a transcript, too.
# usage: tests/scctl_test.sh TRANSCRIPT [EMULATOR...] SCCTL
#        tests/scctl_test.sh --inside TRANSCRIPT [EMULATOR...] SCCTL   prints it as it is
set -uo pipefail

root=$(readlink -f "$(dirname "$0")/..")

if [[ ${1:-} == --inside ]]; then
  transcript=$2
  program=("${@:3}")
  # shellcheck disable=SC2317  # the transcripts call it
  scctl() { "${program[@]}" "$@"; }
  # shellcheck disable=SC2317  # the guard lies beside scctl in the folder of the build
  scguard() { "${program[@]:0:${#program[@]}-1}" "${program[-1]%/*/*}/device/scguard" "$@"; }
  # shellcheck disable=SC2317
  background() { "${program[@]}" "${@:2}" >"$1" & } # its pid is $!
  # shellcheck disable=SC2317
  await() { # waits until the condition holds
    for _ in {1..200}; do
      if eval "$1"; then return; fi
      sleep 0.1
    done
    echo "gave up: $1"
  }
  cd /var || exit 1
  while IFS= read -r line; do
    if [[ $line == '#'* ]]; then
      echo "${blank-}$line"
    elif [[ $line == '$ '* ]]; then
      echo "$line"
      eval "${line:2}" 2>&1 </dev/null
      status=$?
      [[ $status == 0 ]] || echo "[$status]"
    fi
    # A blank line in front of a comment.
    if [[ -z $line ]]; then blank=$'\n'; else blank=''; fi
  done <"$transcript"
  exit 0
fi

transcript=$root/$1
if [[ $1 == *.[1-8] ]]; then
  examples=$(mktemp)
  trap 'rm -f "$examples"' EXIT
  sed -n '/^\.EX/,/^\.EE/{ /^\.E/d; s/\\-/-/g; s/\\e/\\/g; p }' "$transcript" >"$examples"
  transcript=$examples
fi
[[ -s $transcript ]] || exit 1
"$root/examples/private_world" "$0" --inside "$transcript" "${@:2}" 2>&1 |
  diff -u --label "$1" --label said "$transcript" -
