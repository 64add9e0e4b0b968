#!/usr/bin/env bash
# The main job: mount an exFAT volume with mount.exvol and show it.
#
#   tools/run.sh BUILD_DIR IMAGE MOUNTPOINT
#
# IMAGE empty: a demo image is made once (mkfs.exfat, then a few files put
# in with the exvol image tool) and mounted. The volume stays mounted;
# `umount MOUNTPOINT` unmounts it cleanly. Where FUSE can't be used (no
# /dev/fuse), the volume is shown with the image tool instead.
set -euo pipefail

build=$1
img=${2:-}
mnt=$3
exvol=$build/cli/exvol
mounter=$build/fuse/mount.exvol

if [ -z "$img" ]; then
  img=$(dirname "$build")/demo.img
  if [ ! -f "$img" ]; then
    truncate -s 64M "$img.tmp"
    mkfs.exfat -L EXVOLDEMO "$img.tmp" >/dev/null
    demo=$(mktemp -d)
    mkdir -p "$demo/photos/2026" "$demo/docs"
    printf 'Hello from exvol.\nThis volume is an exFAT image mounted by a user-space driver.\n' >"$demo/README.txt"
    printf 'Résumé, naïve café: names keep their case and accents.\n' >"$demo/docs/Notes-été.txt"
    head -c 3000000 /dev/urandom >"$demo/photos/2026/big.bin"
    "$exvol" cp -r "$demo"/* "$img.tmp:/"
    "$exvol" ln -s docs/Notes-été.txt "$img.tmp:/notes"
    rm -rf "$demo"
    mv "$img.tmp" "$img"
  fi
fi

# A volume left mounted by an earlier run is unmounted first; its daemon
# holds the image until it has written everything back.
if mountpoint -q "$mnt" 2>/dev/null; then
  umount "$mnt"
  flock "$img" true
fi

"$exvol" info "$img"
echo

if [ -c /dev/fuse ] && [ -x "$mounter" ]; then
  mkdir -p "$mnt"
  "$mounter" "$img" "$mnt"
  echo "Mounted $img at $mnt:"
  ls -la "$mnt"
  df -h "$mnt" | tail -n 1
  echo
  echo "Unmount with: umount $mnt"
else
  echo "FUSE is not available here; the volume's root as the image tool sees it:"
  "$exvol" ls -l "$img:/"
fi
