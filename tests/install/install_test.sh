#!/bin/bash
# Installs the build tree into a scratch DESTDIR and checks what lands
# where, that the installed programs, man pages and bash completion work,
# and (where cpack and dpkg-deb exist) that the Debian package holds the
# same files and declares its dependencies.
# usage: install_test.sh BUILD_DIR VERSION
set -u
export LC_ALL=C
build=$1 version=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

expected="usr/bin/exvol
usr/sbin/mount.exvol
usr/sbin/mount.fuse.exvol
usr/share/bash-completion/completions/exvol
usr/share/bash-completion/completions/mount.exvol
usr/share/man/man1/exvol.1
usr/share/man/man8/mount.exvol.8"
expected_dev="usr/include/exvol/check.h
usr/include/exvol/file.h
usr/include/exvol/mkfs.h
usr/include/exvol/types.h
usr/include/exvol/volume.h
usr/lib/libexvol.a
usr/lib/pkgconfig/exvol.pc"

# --- make install with DESTDIR --------------------------------------------------
root=$scratch/root
DESTDIR=$root cmake --install "$build" --prefix /usr >/dev/null || fail "cmake --install"
got=$(cd "$root" && find . \( -type f -o -type l \) | sed 's|^\./||' | sort)
all=$(printf '%s\n%s\n' "$expected" "$expected_dev" | sort)
[[ $got == "$all" ]] || fail "installed files differ:"$'\n'"$got"
[[ $(readlink "$root/usr/sbin/mount.fuse.exvol") == mount.exvol ]] ||
  fail "mount.fuse.exvol is not a link to mount.exvol"
[[ $("$root/usr/bin/exvol" --version) == "exvol $version" ]] || fail "exvol --version"
"$root/usr/sbin/mount.exvol" --version | grep -q "^mount.exvol $version " ||
  fail "mount.exvol --version"
for page in man1/exvol.1 man8/mount.exvol.8; do
  grep -q '^\.SH NAME' "$root/usr/share/man/$page" || fail "$page is no man page"
done

# --- bash completion, against an image made by the installed exvol -------------
img=$scratch/c.img src=$scratch/src
mkdir -p "$src/Docs/Deep" && echo x > "$src/Docs/a.txt" && ln -s Docs "$src/lnk"
"$root/usr/bin/exvol" mkfs -s 4M --from "$src" "$img" >/dev/null || fail "mkfs --from"
complete_words() {
  PATH=$root/usr/bin:$PATH bash -c '
    source "$1"; shift
    COMP_WORDS=("$@"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); COMPREPLY=()
    _exvol; printf "%s\n" "${COMPREPLY[@]}" | sort | tr "\n" " "' \
    _ "$root/usr/share/bash-completion/completions/exvol" "$@"
}
check_completion() {
  local want=$1; shift
  local got; got=$(complete_words "$@")
  [[ $got == "$want" ]] || fail "completing '$*': got '$got', want '$want'"
}
check_completion "mkdir mkfs " exvol mk
check_completion "--from " exvol mkfs --fr
check_completion "--help --json --read-only -L -o " exvol stat -
check_completion "$img:Docs/ $img:lnk " exvol ls "$img:"
check_completion "$img:/Docs/Deep/ $img:/Docs/a.txt " exvol cat "$img:/Docs/"
check_completion "$img:Docs/Deep/ " exvol ls "$img:Docs/D"
check_completion "$img: " exvol cp "$img"

# --- an embedder's program, built against the installed library ------------------
# The example in docs/ compiles with nothing but what pkg-config tells, and
# lists the image made above.
example=$scratch/exvol_tree
pc() { PKG_CONFIG_PATH=$root/usr/lib/pkgconfig pkg-config "$@" exvol; }
if ! pc --exists; then
  fail "pkg-config does not find the installed exvol.pc"
elif ! c++ -std=c++20 -o "$example" "$(dirname "$0")/../../docs/examples/exvol_tree.cpp" \
    $(pc --cflags) $(pc --libs); then
  fail "the example does not build against the installed library"
else
  listing=$("$example" "$img" 2>&1)
  want=$'Docs/\n  Deep/\n  a.txt  2\nlnk  4'
  [[ $listing == "$want" ]] || fail "example listing: '$listing'"
  [[ $(pc --modversion) == "$version" ]] || fail "exvol.pc version"
fi

# --- the Debian package -----------------------------------------------------------
if command -v cpack >/dev/null && command -v dpkg-deb >/dev/null; then
  (cd "$scratch" && cpack -G DEB --config "$build/CPackConfig.cmake" >/dev/null) ||
    fail "cpack -G DEB"
  deb_contents() { dpkg-deb --contents "$1" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./||' | sort; }
  deb=$(ls "$scratch"/exvol_*.deb 2>/dev/null | head -1)
  dev_deb=$(ls "$scratch"/libexvol-dev_*.deb 2>/dev/null | head -1)
  [[ -n $dev_deb ]] || fail "no libexvol-dev package"
  [[ -z $dev_deb || $(deb_contents "$dev_deb") == "$expected_dev" ]] ||
    fail "libexvol-dev contents differ:"$'\n'"$(deb_contents "$dev_deb")"
  if [[ -n $deb ]]; then
    contents=$(deb_contents "$deb")
    [[ $contents == "$expected" ]] || fail "package contents differ:"$'\n'"$contents"
    depends=$(dpkg-deb -f "$deb" Depends)
    for dep in fuse3 libfuse3-3 libutf8proc libmd0; do
      [[ $depends == *"$dep"* ]] || fail "Depends lacks $dep: $depends"
    done
    [[ $(dpkg-deb -f "$deb" Version) == "$version" ]] || fail "package version"
  fi
else
  echo "cpack or dpkg-deb missing: package not checked"
fi
[[ $failures == 0 ]] && echo "install: all checks passed"
exit $((failures > 0))
