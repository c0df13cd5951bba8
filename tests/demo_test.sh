#!/bin/bash
# The demo as a stranger meets it: arguments, bindings good and bad, the list after a power cut.
# usage: tests/demo_test.sh [EMULATOR...] BUILD
# BUILD is the folder of a build: its demo program is run, and its scctl by that.
set -euo pipefail

root=$(readlink -f "$(dirname "$0")/..")
emulator=("${@:1:$#-1}")
build=$(readlink -f "${!#}")
program=("${emulator[@]}" "$build/examples/sysconfig_demo")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin"
printf '#!/bin/sh\nexec %s "$@"\n' "${emulator[*]@Q} '$build/scctl/scctl'" >"$work/bin/scctl"
chmod +x "$work/bin/scctl"
export PATH=$work/bin:$PATH
cd "$root"
failed=0

complain() {
  echo "FAILED: $1" >&2
  failed=1
}

# Runs the command of ./demo, whose arguments end before anything is built.
arguments() {
  local status=0 expected=$1 message=$2
  shift 2
  "$root/demo" "$@" >"$work/out" 2>"$work/err" </dev/null || status=$?
  [[ $status == "$expected" ]] || complain "./demo $*: status $status, not $expected"
  [[ $(<"$work/err") == "$message" ]] || complain "./demo $*: said '$(<"$work/err")'"
}

# Runs the program in a private world with the bindings of stdin.
demo() {
  local status=0 expected=$1 name=$2
  "$root/examples/private_world" "${program[@]}" "$name" >"$work/out" 2>"$work/err" || status=$?
  [[ $status == "$expected" ]] || complain "$name: status $status, not $expected"
  ! LC_ALL=C.UTF-8 grep -nE '^.{81,}$' "$work/out" || complain "$name: wider than 80 columns"
}

# The rows of the table under a heading.
rows() {
  sed -n "/^-- $1\. /,/^-- $(($1 + 1))\. /p" "$work/out" | grep -E '^[0-9]+ +([0-9a-fA-F]{2}:){5}'
}

says() {
  grep -qF -- "$1" "$work/out" || complain "$2: does not say '$1'"
}

errors() {
  [[ $(<"$work/err") == "$2" ]] || complain "$1: stderr is: $(<"$work/err")"
}

arguments 0 '' --help
grep -q '^usage: ./demo \[FILE\]$' "$work/out" || complain '--help shows no usage'
arguments 2 'demo: unknown option --hepl; ./demo --help tells more' --hepl
arguments 2 'demo: more than one FILE: a, b' a b
arguments 2 'demo: FILE is empty' ''
arguments 2 'demo: no/such: no such file' no/such
arguments 2 "demo: $work: is a folder" "$work"
arguments 2 'demo: --help: no such file' -- --help

# Twelve good bindings.
demo 0 bindings.txt <"$root/examples/bindings.txt"
errors bindings.txt ''
[[ $(rows 3 | wc -l) == 12 ]] || complain 'bindings.txt: not 12 listed'
[[ $(rows 5) == "$(rows 3)" ]] || complain 'bindings.txt: another list after the power cut'
says 'id 12    1 Lan' bindings.txt
says '$ scctl areas' bindings.txt
says 'bind_mac' bindings.txt
says '50888 bytes compared, 0 differ.' bindings.txt
says ' var/systemconfig/config_lan.cfg' bindings.txt
[[ $(grep -A 1 '^\$ scctl get wan/1.mtu' "$work/out" | tail -1) == 1492 ]] ||
  complain 'bindings.txt: no MTU before it is set'
says 'mtu                   1400 bytes' bindings.txt
says '  6 FwIpport, 9 Qos, 10 IpGroup' bindings.txt
says '  6 FwIpport, 8 FwUrl, 7 FwMac, 9 Qos, 11 TimeGroup' bindings.txt
says '"what":"add"' bindings.txt
says '"number_3":[8080,8081]' bindings.txt
! grep -q '^ *watching$' "$work/out" || complain 'bindings.txt: shows a line that is no change'
# Emulators of a single program do not know fanotify, and so no authors.
[[ ${#emulator[@]} -gt 0 ]] || says '"note":"the old port was taken"' bindings.txt
says 'Sixteen images are back, 0 bytes differ.' bindings.txt
[[ $(grep -c 'event command: change_event network' "$work/out") == 3 ]] ||
  complain 'bindings.txt: Lan is saved twice and Wan once, each with its event'

# Forty bindings: clashes, and more than there is room for.
demo 1 forty <"$root/examples/forty_bindings.txt"
errors forty 'forty:10: refused: MAC bound already, by line 6 (id 3)
forty:15: refused: MAC bound already, by line 13 (id 9)
forty:22: refused: address bound already, by line 8 (id 5)
forty:29: refused: address bound already, by line 28 (id 22)
forty:36: refused: MAC bound already, by line 4 (id 1)
forty:41: refused: the table is full (32 bindings)
forty:42: refused: the table is full (32 bindings)
forty:43: refused: the table is full (32 bindings)'
[[ $(rows 3 | wc -l) == 32 ]] || complain 'forty: not 32 listed'
[[ $(rows 5) == "$(rows 3)" ]] || complain 'forty: another list after the power cut'
says '32 added, 8 refused.' forty

# Malformed lines, each with its reason; the good ones between them are added.
long=$(printf '%0201d' 0)
{
  printf '\xef\xbb\xbf02:00:5e:00:00:01 10.0.0.1 behind a byte order mark\n'
  printf 'zz:00:5e:00:00:02 10.0.0.2 a\n02:00:5e:00:00:02\n02:00:5e:00:00:02 10.0.0 a\n'
  printf '02:00:5e:00:00:02 10.0.0.2\n02:00:5e:00:00:02 10.0.0.2 %s\n' "$long"
  printf '02:00:5e:00:00:02 10.0.0.2 \033[2Jcleared\n02:00:5e:00:00:02 10.0.0.2 a\0b\n'
  printf '   # a comment\n\n02:00:5e:00:00:02 , 10.0.0.2 , %s\r\n' "${long:1}"
  printf '\t02:00:5e:00:00:03\t10.0.0.3\tno newline at the end'
} >"$work/bad"
demo 1 bad <"$work/bad"
errors bad "bad:2: malformed: 'zz:00:5e:00:00:02' is not a valid MAC address, such as 00:11:22:33:44:55
bad:3: malformed: no address behind the MAC
bad:4: malformed: '10.0.0' is not a valid IPv4 address, such as 192.168.1.20
bad:5: malformed: no name behind the address
bad:6: malformed: the name has 201 bytes, at most 200 fit
bad:7: malformed: the name has a control character
bad:8: malformed: NUL byte in the line"
[[ $(rows 3 | wc -l) == 3 ]] || complain 'bad: not 3 listed'
says '02:00:5e:00:00:02  10.0.0.2         000000000000000...' bad

demo 0 empty </dev/null
says '(0 of 32 records)' empty

# Nowhere but in a private world.
status=0
"${program[@]}" name </dev/null >"$work/out" 2>"$work/err" || status=$?
[[ $status == 3 && ! -s $work/out ]] || complain "outside of a private world: status $status"

exit "$failed"
