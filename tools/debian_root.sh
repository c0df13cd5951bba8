# Sourced by commands that need a Debian 12 of their own; needs root and debootstrap.
# shellcheck shell=bash

# make_root FOLDER: a minimal Debian 12 with the host's mirror and download settings.
make_root() {
  local root=$1 release=bookworm mirror cafile
  if [[ $(id -u) -ne 0 ]] || ! command -v debootstrap >/dev/null; then
    echo "$0: needs root and the package debootstrap" >&2
    return 1
  fi
  mirror=$(apt-get indextargets --format "\$(RELEASE) \$(REPO_URI)" 'Created-By: Packages' |
    awk -v release=$release '$1 == release { print $2; exit }')
  echo "Making $root from $mirror"
  debootstrap --variant=minbase $release "$root" "$mirror" >"$root.log" ||
    { tail -20 "$root.log" && rm "$root.log" && return 1; }
  rm "$root.log"
  apt-config dump | grep -E '^Acquire::(Check|Retries|http|https)' \
    >"$root/etc/apt/apt.conf.d/99host" || true
  cp /etc/resolv.conf "$root/etc/resolv.conf"
  cafile=$(npm config get cafile 2>/dev/null || true)
  if [[ -f $cafile ]]; then
    mkdir -p "$root/etc/ssl"
    cp "$cafile" "$root/etc/ssl/host_ca.crt"
    echo "cafile=/etc/ssl/host_ca.crt" >"$root/root/.npmrc"
  fi
  chmod 755 "$root" # the tests have users who are not root
}

# run_in_root FOLDER COMMAND...: the root is a mount point, as the tests make / private.
run_in_root() {
  # shellcheck disable=SC2016  # expanded by the inner shell
  unshare --mount --ipc --pid --fork --kill-child bash -euc '
    mount --bind "$0" "$0"
    mount -t proc proc "$0/proc"
    mount --rbind /sys "$0/sys"
    mount --rbind /dev "$0/dev"
    exec env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot "$0" "$@"
  ' "$@"
}
