# bash completion for exvol(1) and mount.exvol(8).
#
# Completes commands, their options, host paths, and IMG:PATH names inside
# images: once a word holds "IMG:" with IMG an existing file, the names of
# the directory typed so far are listed with `exvol ls -a` (read-only; an
# image that is locked or damaged just completes nothing).

_exvol_commands="info ls stat cat cp mv rm mkdir rmdir ln readlink touch attrib label df check mkfs help"

_exvol_options() {
  case $1 in
    info) echo "--json" ;;
    ls) echo "-l -a -R -d -U" ;;
    stat) echo "-L --json" ;;
    cp) echo "-r -R -p -n" ;;
    mv) echo "-n" ;;
    rm) echo "-r -R -f" ;;
    mkdir) echo "-p" ;;
    ln) echo "-s -f" ;;
    touch) echo "-c -d" ;;
    label) echo "-c" ;;
    df) echo "-h" ;;
    check) echo "--json --repair --repair=aggressive" ;;
    mkfs) echo "-s -c -L --serial --from" ;;
  esac
  case $1 in
    info|check|mkfs|help) ;;
    *) echo "-o --read-only" ;;
  esac
  echo "--help"
}

# Names inside an image for the word "IMG:DIR/PART".
_exvol_image_paths() {
  local word=$1 image=${1%%:*} path=${1#*:}
  local dir=${path%/*} part=${path##*/}
  [[ $path == */* ]] || dir=""
  local prefix="$image:${dir:+$dir/}"
  [[ $path == /* && -z $dir ]] && prefix="$image:/"
  local listing kind size day time name
  listing=$(exvol ls -l -a "$image:${dir:-/}" 2>/dev/null) || return
  while read -r kind size day time name; do
    [[ -z $name ]] && continue
    [[ $kind == l* ]] && name=${name% -> *}
    [[ $name == "$part"* ]] || continue
    if [[ $kind == d* ]]; then
      COMPREPLY+=("$prefix$name/")
    else
      COMPREPLY+=("$prefix$name")
    fi
  done <<< "$listing"
}

_exvol() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
  COMPREPLY=()
  # bash splits words at ':' (COMP_WORDBREAKS): take the whole word from
  # the line, and give back replies relative to the part after the colon.
  local line trim=""
  if [[ -n ${COMP_LINE-} ]]; then
    line=${COMP_LINE:0:COMP_POINT}
    cur=${line##*[[:space:]]}
    [[ $COMP_WORDBREAKS == *:* && $cur == *:* ]] && trim=${cur%"${cur##*:}"}
  fi
  if (( COMP_CWORD == 1 )); then
    COMPREPLY=($(compgen -W "$_exvol_commands --help --version" -- "$cur"))
    return
  fi
  local command=${COMP_WORDS[1]}
  case $command:$prev in
    help:*) (( COMP_CWORD == 2 )) && COMPREPLY=($(compgen -W "$_exvol_commands" -- "$cur")); return ;;
    mkfs:-s|mkfs:-c|mkfs:-L|mkfs:--serial|*:-o|touch:-d) return ;;
    mkfs:--from) COMPREPLY=($(compgen -d -- "$cur")); return ;;
  esac
  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "$(_exvol_options "$command")" -- "$cur"))
    return
  fi
  if [[ $cur == *:* && -f ${cur%%:*} ]]; then
    compopt -o nospace 2>/dev/null
    _exvol_image_paths "$cur"
  else
    compopt -o filenames 2>/dev/null
    COMPREPLY=($(compgen -f -- "$cur"))
    # An image file is followed by ':' to go inside it.
    if (( ${#COMPREPLY[@]} == 1 )) && [[ -f ${COMPREPLY[0]} && $command != mkfs ]]; then
      case $command in info|label|df|check) ;; *) COMPREPLY=("${COMPREPLY[0]}:"); compopt -o nospace 2>/dev/null ;; esac
    fi
  fi
  if [[ -n $trim ]]; then
    local i
    for i in "${!COMPREPLY[@]}"; do
      COMPREPLY[i]=${COMPREPLY[i]#"$trim"}
    done
  fi
}
complete -F _exvol exvol

_mount_exvol() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
  COMPREPLY=()
  if [[ $prev == -o ]]; then
    local opts="ro rw uid= gid= umask= dmask= fmask= noatime sync async commit= allow_other default_permissions quiet fsname= time_offset= tz=UTC"
    COMPREPLY=($(compgen -W "$opts" -- "${cur##*,}"))
    [[ $cur == *,* ]] && COMPREPLY=("${COMPREPLY[@]/#/${cur%,*},}")
    compopt -o nospace 2>/dev/null
  elif [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "-o -f -d -h -V --help --version" -- "$cur"))
  else
    compopt -o filenames 2>/dev/null
    COMPREPLY=($(compgen -f -- "$cur"))
  fi
}
complete -F _mount_exvol mount.exvol
