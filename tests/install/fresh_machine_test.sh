#!/bin/bash
# Installs the Debian package on a fresh, minimal Debian and uses it there:
# debootstrap (minbase) into a scratch folder, `apt-get install ./exvol_*.deb`
# inside a chroot, so that the declared dependencies must resolve from the
# archive alone, then the installed programs make, fill and check a volume.
# Needs root, debootstrap and the network to the Debian archive that apt on
# this machine uses (read from its sources at run time). Takes minutes.
#
# usage: fresh_machine_test.sh DEB [SUITE]     (SUITE: default bookworm)
set -u
export LC_ALL=C
deb=$(realpath "$1") suite=${2:-bookworm}
[[ -f $deb ]] || { echo "no package: $1"; exit 2; }
[[ $(id -u) == 0 ]] || { echo "needs root (debootstrap, chroot)"; exit 2; }
command -v debootstrap >/dev/null || { echo "needs debootstrap (apt-get install debootstrap)"; exit 2; }

# The archive this machine's apt already uses: the first URI of a source
# that serves plain SUITE (not -security, not -updates), in either format.
mirror() {
  local f
  for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [[ -f $f ]] || continue
    sed -E 's/\[[^]]*\]//' "$f" | awk -v s="$suite" '$1 == "deb" && $3 == s { print $2; exit }'
  done
  for f in /etc/apt/sources.list.d/*.sources; do
    [[ -f $f ]] || continue
    awk -v s="$suite" 'BEGIN { RS = ""; FS = "\n" }
      { uri = ""; ok = 0
        for (i = 1; i <= NF; i++) {
          if ($i ~ /^URIs:/) { split($i, u, " "); uri = u[2] }
          if ($i ~ /^Suites:/) { n = split($i, w, " "); for (j = 2; j <= n; j++) if (w[j] == s) ok = 1 }
        }
        if (ok && uri != "") { print uri; exit } }' "$f"
  done
}
archive=$(mirror | head -1)
[[ -n $archive ]] || { echo "no apt source for $suite on this machine"; exit 2; }

scratch=$(mktemp -d)
root=$scratch/root
cleanup() {
  for m in dev/pts dev proc; do
    mountpoint -q "$root/$m" && umount -l "$root/$m"
  done
  # Never remove through a mount that is still there.
  if ! grep -q " $scratch/" /proc/self/mounts; then
    rm -rf "$scratch"
  fi
}
trap cleanup EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
step() { echo "== $* ($(( SECONDS - start )) s)"; }
start=$SECONDS

step "debootstrap --variant=minbase $suite"
debootstrap --variant=minbase "$suite" "$root" "$archive" >"$scratch/debootstrap.log" 2>&1 || {
  tail -20 "$scratch/debootstrap.log"; echo "FAIL: debootstrap"; exit 1; }
mount -t proc proc "$root/proc"
mount --bind /dev "$root/dev"
mount --bind /dev/pts "$root/dev/pts"
cp "$deb" "$root/tmp/"
in_root() { chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
  LC_ALL=C DEBIAN_FRONTEND=noninteractive /bin/bash -c "$1"; }

# man-db too, which minbase leaves out, so that `man -w` can find the pages.
step "apt-get install ./$(basename "$deb") man-db"
in_root "apt-get update -qq && apt-get install -y -qq /tmp/$(basename "$deb") man-db" \
  >"$scratch/apt.log" 2>&1 || { tail -20 "$scratch/apt.log"; fail "apt-get install"; }

step "using the installed programs"
version=$(dpkg-deb -f "$deb" Version)
check() {  # check WHAT EXPECTED-OUTPUT-PATTERN COMMAND
  local out
  out=$(in_root "$3" 2>&1)
  local status=$?
  if [[ $status != 0 ]]; then
    fail "$1 (status $status): $out"
  elif [[ ! $out =~ $2 ]]; then
    fail "$1: '$out' does not match '$2'"
  else
    echo "ok: $1"
  fi
}
# Every package the .deb depends on came from the archive and is installed.
depends=$(dpkg-deb -f "$deb" Depends | sed -E 's/\([^)]*\)//g; s/\|[^,]*//g; s/,/ /g' | xargs)
check "dependencies installed ($depends)" "^(install ok installed[[:space:]]*)+\$" \
  "dpkg-query -W -f='\${Status}\n' $depends"
check "exvol --version" "^exvol $version\$" "exvol --version"
check "mount.exvol --version" "^mount.exvol $version " "mount.exvol --version"
check "exvol mkfs" "exFAT" "cd /tmp && exvol mkfs -s 64M x.img"
check "exvol cp in and back" "^hello from a fresh machine\$" \
  "cd /tmp && echo 'hello from a fresh machine' > f.txt && exvol mkdir x.img:/d &&
   exvol cp f.txt x.img:/d/ && exvol cat x.img:/d/f.txt"
check "exvol check" "clean" "cd /tmp && exvol check x.img"
if in_root "command -v man >/dev/null"; then
  check "man -w exvol" "exvol\\.1" "man -w exvol"
else
  check "man pages installed" "exvol\\.1.*mount\\.exvol\\.8" \
    "ls /usr/share/man/man1/exvol.1* /usr/share/man/man8/mount.exvol.8* | tr '\n' ' '"
fi
check "bash completion installed" "exvol" "ls /usr/share/bash-completion/completions/exvol"

[[ $failures == 0 ]] && echo "fresh machine: all checks passed in $(( SECONDS - start )) s"
exit $((failures > 0))
