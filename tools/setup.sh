#!/bin/bash
# Installs what a command of this repository needs and the machine lacks. What apt prints goes to a log,
# build/setup.log, whose end is shown when that fails.
# Usage: tools/setup.sh demo|device|check|package    (each includes what the ones before it need)
#        tools/setup.sh bench                        (includes what "demo" needs)
set -euo pipefail

list=$(dirname "$0")/packages.list

case ${1:-} in
  demo) groups=' demo ' ;;
  device) groups=' demo device ' ;;
  check) groups=' demo device check ' ;;
  package) groups=' demo device check package ' ;;
  bench) groups=' demo bench ' ;;
  *)
    echo "usage: $0 demo|device|check|package|bench" >&2
    exit 2
    ;;
esac

wanted=()
group=
while read -r word _; do
  case $word in
    '' | '#'*) ;;
    '['*) group=${word//[][]/} ;;
    *) [[ $groups == *" $group "* ]] && wanted+=("$word") ;;
  esac
done <"$list"

missing=()
for package in "${wanted[@]}"; do
  status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
  # A Node.js that is not Debian's has npm in its own package, beside which Debian's cannot be installed.
  [[ $package != npm ]] || ! command -v npm >/dev/null || status=installed
  [[ $status == installed ]] || missing+=("$package")
done
[[ ${#missing[@]} -gt 0 ]] || exit 0

as_root=()
if [[ $(id -u) -ne 0 ]]; then
  if ! command -v sudo >/dev/null; then
    echo "$0: these packages are missing: ${missing[*]}" >&2
    echo "$0: run as root, or install sudo, or install them yourself:" >&2
    echo "  apt-get install --no-install-recommends ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi

log=$(readlink -f "$(dirname "$0")/..")/build/setup.log
if ! mkdir -p "${log%/*}" 2>/dev/null || ! { : >"$log"; } 2>/dev/null; then
  log=$(mktemp /tmp/sysconfig-setup.XXXXXX)
fi
echo "Installing: ${missing[*]} (log: $log)"
# A broken third-party list must not stop us; the installation below decides.
"${as_root[@]}" apt-get update -q >"$log" 2>&1 ||
  echo "$0: apt-get update failed, trying to install anyway" >&2
if ! "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -q -y --no-install-recommends "${missing[@]}" </dev/null >>"$log" 2>&1; then
  tail -20 "$log" >&2
  echo "$0: the installation failed; the end of $log stands above" >&2
  exit 1
fi
