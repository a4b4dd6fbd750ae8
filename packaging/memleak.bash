# Completion of bash for memleak. Written by scripts/manual from the help texts.

_memleak_words() {
  mapfile -t COMPREPLY < <(compgen -W "$1" -- "$current")
}
_memleak_files() {
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen -f -- "$current")
}
_memleak_directories() {
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen -d -- "$current")
}
_memleak_nothing() {
  COMPREPLY=()
}
# The processes that have the tracker loaded, as far as one may look.
_memleak_pids() {
  local maps pid pids=()
  for maps in $(grep -ls libmemleak_tracker.so /proc/[0-9]*/maps 2>/dev/null); do
    pid=${maps#/proc/}
    pids+=("${pid%/maps}")
  done
  _memleak_words "${pids[*]}"
}
_memleak_word_then_pid() {
  local word
  for word in "${COMP_WORDS[@]:2:COMP_CWORD-2}"; do
    if [[ " $1 " == *" $word "* ]]; then
      _memleak_pids
      return
    fi
  done
  _memleak_words "$1"
}

_memleak() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local command=${COMP_WORDS[1]} options= word
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    _memleak_words "run on pause report clear libs fd send status show watch html diff export --help --version"
    return
  fi
  if [[ $command == run ]]; then
    # Behind "--" stands another command with its own words.
    for word in "${COMP_WORDS[@]:2:COMP_CWORD-2}"; do
      if [[ $word == -- ]]; then
        _memleak_files
        return
      fi
    done
  fi
  case $command:$previous in
    run:--kind) _memleak_words "native mmap ion gpu"; return ;;
    run:--lib) _memleak_nothing; return ;;
    run:--func) _memleak_nothing; return ;;
    run:--depth) _memleak_nothing; return ;;
    run:--unwind) _memleak_words "fp dwarf"; return ;;
    run:--root) _memleak_directories; return ;;
    run:--log) _memleak_files; return ;;
    run:--libdir) _memleak_directories; return ;;
    run:--emulator) _memleak_nothing; return ;;
    on:--kind) _memleak_words "native mmap ion gpu"; return ;;
    on:--lib) _memleak_nothing; return ;;
    on:--func) _memleak_nothing; return ;;
    on:--depth) _memleak_nothing; return ;;
    on:--unwind) _memleak_words "fp dwarf"; return ;;
    pause:--kind) _memleak_words "native mmap ion gpu"; return ;;
    report:--kind) _memleak_words "native mmap ion gpu"; return ;;
    report:--timeout) _memleak_nothing; return ;;
    clear:--kind) _memleak_words "native mmap ion gpu"; return ;;
    fd:--depth) _memleak_nothing; return ;;
    send:--word) _memleak_nothing; return ;;
    send:--parameter) _memleak_nothing; return ;;
    show:--by) _memleak_words "group library function tree callers"; return ;;
    show:--top) _memleak_nothing; return ;;
    show:--filter) _memleak_nothing; return ;;
    show:--min-size) _memleak_nothing; return ;;
    show:--older-than) _memleak_nothing; return ;;
    show:--sort) _memleak_words "total count size age"; return ;;
    show:--symbols) _memleak_directories; return ;;
    show:--sysroot) _memleak_directories; return ;;
    watch:-o|watch:--output) _memleak_directories; return ;;
    watch:--every) _memleak_nothing; return ;;
    watch:--for) _memleak_nothing; return ;;
    watch:--timeout) _memleak_nothing; return ;;
    watch:--top) _memleak_nothing; return ;;
    watch:--symbols) _memleak_directories; return ;;
    watch:--sysroot) _memleak_directories; return ;;
    html:-o|html:--output) _memleak_files; return ;;
    html:--diff) _memleak_files; return ;;
    html:--symbols) _memleak_directories; return ;;
    html:--sysroot) _memleak_directories; return ;;
    html:--old-symbols) _memleak_directories; return ;;
    html:--old-sysroot) _memleak_directories; return ;;
    diff:--top) _memleak_nothing; return ;;
    diff:--fail-over) _memleak_nothing; return ;;
    diff:--symbols) _memleak_directories; return ;;
    diff:--sysroot) _memleak_directories; return ;;
    diff:--old-symbols) _memleak_directories; return ;;
    diff:--old-sysroot) _memleak_directories; return ;;
    export:--format) _memleak_words "folded speedscope pprof json html"; return ;;
    export:-o|export:--output) _memleak_files; return ;;
    export:--by) _memleak_words "bytes count"; return ;;
    export:--symbols) _memleak_directories; return ;;
    export:--sysroot) _memleak_directories; return ;;
  esac
  case $command in
    run) options="-h --help --start --report-at-exit --kind --lib --func --depth --unwind --root --log --libdir --emulator" ;;
    on) options="-h --help --keep --kind --lib --func --depth --unwind" ;;
    pause) options="-h --help --kind" ;;
    report) options="-h --help --kind --timeout --keep-recording" ;;
    clear) options="-h --help --kind" ;;
    libs) options="-h --help" ;;
    fd) options="-h --help --depth" ;;
    send) options="-h --help --word --parameter" ;;
    status) options="-h --help" ;;
    show) options="-h --help --by --top --filter --min-size --older-than --sort --symbols --sysroot --debuginfod --json --partial" ;;
    watch) options="-h --help -o --output --every --for --timeout --top --symbols --sysroot --debuginfod" ;;
    html) options="-h --help -o --output --diff --symbols --sysroot --debuginfod --old-symbols --old-sysroot --partial" ;;
    diff) options="-h --help --top --fail-over --symbols --sysroot --debuginfod --old-symbols --old-sysroot --json --partial" ;;
    export) options="-h --help --format -o --output --by --symbols --sysroot --debuginfod --partial" ;;
  esac
  if [[ $current == -* ]]; then
    _memleak_words "$options"
    return
  fi
  case $command in
    show|html|diff|export) _memleak_files ;;
    on|pause|report|clear|libs|send|status|watch) _memleak_pids ;;
    fd) _memleak_word_then_pid "on off dump clear" ;;
  esac
}
complete -F _memleak memleak
