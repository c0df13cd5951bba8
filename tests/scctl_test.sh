#!/bin/sh
# A transcript is what scctl says: each "$ command" is run, in a private world, and what it prints
# on both streams, and an exit status other than 0 as "[status]", is compared with the lines that
# follow. The examples of a man page are a transcript, too. Runs on the host and, by BusyBox, in the
# box: all commands are for a POSIX shell.
# usage: tests/scctl_test.sh TRANSCRIPT [EMULATOR...] BUILD
#        tests/scctl_test.sh --accept TRANSCRIPT [EMULATOR...] BUILD   makes it say what is said now
#        tests/scctl_test.sh --inside TRANSCRIPT [EMULATOR...] BUILD   prints it as it is
# BUILD is the folder of a build: its scctl, scguard and helper are run.
set -u

root=$(readlink -f "$(dirname "$0")/..")

if [ "${1:-}" = --inside ]; then
  quoted() { printf " '%s'" "$(printf '%s' "$1" | sed "s/'/'\\\\''/g")"; }
  transcript=$2
  shift 2
  emulator=
  if [ $# -gt 1 ]; then # it is found whatever PATH a transcript sets
    first=$(command -v "$1")
    shift
    set -- "$first" "$@"
  fi
  while [ $# -gt 1 ]; do
    emulator=$emulator$(quoted "$1")
    shift
  done
  build=$(readlink -f "$1")
  for program in scctl/scctl scctl/scctl_helper scguard/scguard; do
    name=/var/bin/${program##*[/_]}
    if [ -z "$emulator" ]; then
      ln -s "$build/$program" "$name"
    else
      printf '#!/bin/sh\nexec%s "$@"\n' "$emulator$(quoted "$build/$program")" >"$name"
      chmod +x "$name"
    fi
  done

  # shellcheck disable=SC2317  # the transcripts call it
  await() { # waits until the condition holds
    tries=200
    until eval "$1"; do
      tries=$((tries - 1))
      if [ "$tries" = 0 ]; then
        echo "gave up: $1"
        return 1
      fi
      sleep 0.1
    done
  }
  # The end of a try is told to nobody on this machine.
  ln -s /bin/true /var/bin/logger
  [ ! -d /dev/pts ] || mount -t tmpfs tmpfs /dev/pts
  cd /var || exit 1
  blank=
  while IFS= read -r line; do
    case $line in
      '#'*) echo "$blank$line" ;;
      '$ '*)
        printf '%s\n' "$line"
        eval "${line#??}" 2>&1 </dev/null
        status=$?
        [ "$status" = 0 ] || echo "[$status]"
        ;;
    esac
    # A blank line in front of a comment.
    blank=
    [ -n "$line" ] || blank='
'
  done <"$transcript"
  exit 0
fi

accept=
if [ "${1:-}" = --accept ]; then
  accept=1
  shift
fi
transcript=$root/$1
name=$1
shift
case $name in
  *.[1-8])
    examples=$(mktemp)
    trap 'rm -f "$examples"' EXIT
    sed -n '/^\.EX/,/^\.EE/{ /^\.E/d; s/\\-/-/g; s/\\e/\\/g; p }' "$transcript" >"$examples"
    transcript=$examples
    ;;
esac
[ -s "$transcript" ] || exit 1
# A shell cannot undo that its caller ignores a signal, as nohup does. BusyBox's env cannot, either.
hear='env --default-signal=HUP,INT,QUIT,PIPE,TERM'
$hear true 2>/dev/null || hear=
if [ -n "$accept" ]; then
  said=$(mktemp)
  $hear "$root/examples/private_world" "$0" --inside "$transcript" "$@" >"$said" 2>&1
  cat "$said" >"$transcript"
  rm "$said"
  exit 0
fi
$hear "$root/examples/private_world" "$0" --inside "$transcript" "$@" 2>&1 |
  diff -u -L "$name" -L said "$transcript" -
