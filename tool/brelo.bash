# Completion of brelo for bash: commands, their options, and sockets.

_brelo() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command= i
  for ((i = 1; i < COMP_CWORD; i++)); do
    [[ ${COMP_WORDS[i]} == -* ]] || { command=${COMP_WORDS[i]}; break; }
  done
  COMPREPLY=()
  if [[ -z $command ]]; then
    mapfile -t COMPREPLY < <(compgen -W "exceptions history metrics monitor pending report stalls timeline top trace --help --version" -- "$word")
    return
  fi
  case $before in
    -o | --output | --from)
      _brelo_files -f "$word"
      return
      ;;
    --sort)
      mapfile -t COMPREPLY < <(compgen -W "group name priority tasks runnable pending runs runs_per_s run_s run_ratio
        run_mean_ns run_p50_ns run_p90_ns run_p99_ns run_p999_ns run_max_ns
        wait_mean_ns wait_p50_ns wait_p90_ns wait_p99_ns wait_p999_ns wait_max_ns
        work work_per_s violations_200 violations_500" -- "$word")
      return
      ;;
    --top | --group | --since | --seconds | --capacity | --timeout | --listen | --interval | --batch | --filter | --quantum | --width)
      return
      ;;
  esac
  if [[ $word == -* ]]; then
    local options=
    case $command in
      exceptions) options="--on --off --json" ;;
      history) options="--since --follow --json" ;;
      metrics) options="--listen" ;;
      monitor) options="--top --sort --group --histograms --json" ;;
      pending | stalls) options="--json" ;;
      report) options="--text" ;;
      timeline) options="--output --seconds --capacity --from" ;;
      top) options="--interval --batch --sort --filter --flat --since-clear --quantum --width" ;;
    esac
    [[ $command == top ]] || options+=" --timeout"
    mapfile -t COMPREPLY < <(compgen -W "$options --help" -- "$word")
    return
  fi
  _brelo_sockets "$word"
}

# Files, or folders on the way to them.
_brelo_files() {
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen "$1" -- "$2")
}

_brelo_sockets() {
  local path
  _brelo_files -f "$1"
  local -a found=("${COMPREPLY[@]}")
  COMPREPLY=()
  for path in "${found[@]}"; do
    [[ -S $path || -d $path ]] && COMPREPLY+=("$path")
  done
}

complete -F _brelo brelo
