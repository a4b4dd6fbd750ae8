# SPDX-License-Identifier: Apache-2.0
# bash completion for memleak. Reads commands, options and values from the help texts.

# Prints the rows of section $1 in the help text $2.
_memleak_rows() {
  sed -n "/^$1:/,/^\$/s/^  \([^ ]\)/\1/p" <<<"$2"
}
_memleak_offer() {
  mapfile -t COMPREPLY < <(compgen "$@" -- "${COMP_WORDS[COMP_CWORD]}")
}
_memleak_files() {
  compopt -o filenames 2>/dev/null
  _memleak_offer "$1"
}
# Prints the processes that have loaded the tracker and that the user may inspect.
_memleak_pids() {
  local maps pids=()
  for maps in $(grep -ls libmemleak_tracker.so /proc/[0-9]*/maps 2>/dev/null); do
    maps=${maps#/proc/}
    pids+=("${maps%/maps}")
  done
  _memleak_offer -W "${pids[*]}"
}

_memleak() {
  local program=${COMP_WORDS[0]} previous=${COMP_WORDS[COMP_CWORD - 1]} help value word row
  local before=("${COMP_WORDS[@]:2:COMP_CWORD-2}")
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    help=$("$program" --help 2>/dev/null)
    _memleak_offer -W "$(_memleak_rows Subcommands "$help" | cut -d ' ' -f 1) --help --version"
    return
  fi
  # The words after "--" are another command line.
  if [[ " ${before[*]} " == *" -- "* ]]; then
    _memleak_files -f
    return
  fi
  help=$("$program" "${COMP_WORDS[1]}" --help 2>/dev/null)
  if [[ $previous == -* ]]; then
    value=$(_memleak_rows Options "$help" |
      sed -n "s/^\([^ ]*,\)\?$previous\(,[^ ]*\)\? \([^ ]*\).*/\3/p")
    case $value in
      '') ;;
      *'|'*) _memleak_offer -W "${value//|/ }"; return ;;
      DIR) _memleak_files -d; return ;;
      FILE|OLD) _memleak_files -f; return ;;
      *) return ;;
    esac
  fi
  if [[ ${COMP_WORDS[COMP_CWORD]} == -* ]]; then
    _memleak_offer -W "$(_memleak_rows Options "$help" | cut -d ' ' -f 1 | tr , ' ')"
    return
  fi
  while read -r row value _; do
    case $row:$value in
      PID:*) _memleak_pids ;;
      *:*'|'*)
        for word in "${before[@]}"; do
          [[ "|$value|" == *"|$word|"* ]] && continue 2
        done
        _memleak_offer -W "${value//|/ }" ;;
      *) _memleak_files -f ;;
    esac
    return
  done < <(_memleak_rows Positionals "$help")
}
complete -F _memleak memleak
