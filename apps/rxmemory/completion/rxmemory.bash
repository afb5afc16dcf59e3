# Bash completion for rxmemory: commands, options, and, from the running
# broker (the --url on the line, else RXMEMORY_URL, else the default), method
# names after `call` and `methods` and key names after the commands that take
# keys. Installed as share/bash-completion/completions/rxmemory; to try it
# from a build tree: source apps/rxmemory/completion/rxmemory.bash

_rxmemory() {
  local cur prev words cword
  if declare -F _init_completion >/dev/null; then
    _init_completion -n : || return
  else
    cur=${COMP_WORDS[COMP_CWORD]}
    prev=${COMP_WORDS[COMP_CWORD - 1]}
    words=("${COMP_WORDS[@]}")
    cword=$COMP_CWORD
  fi

  local commands="get insert raise raise-micro remove list events micro-events type timestamp history
    describe descriptions subscribers watch methods page call"
  local global="--url --timeout --json --module --http --help --version"

  # The command, and the broker options typed so far (for asking the broker).
  local command="" i
  local -a ask=()
  for ((i = 1; i < cword; i++)); do
    case ${words[i]} in
      --url | --module) ask+=("${words[i]}" "${words[i + 1]}"); ((i++)) ;;
      --timeout | --http) ((i++)) ;;
      -*) ;;
      *) [[ -z $command ]] && command=${words[i]} ;;
    esac
  done

  case $prev in
    --url) COMPREPLY=($(compgen -W "tcp://127.0.0.1:9780 unix:///" -- "$cur")); return ;;
    --http) COMPREPLY=($(compgen -W "http://127.0.0.1:9781" -- "$cur")); return ;;
    --timeout | --module | --interval | -n | --count) return ;;
  esac

  if [[ -z $command ]]; then
    if [[ $cur == -* ]]; then
      COMPREPLY=($(compgen -W "$global" -- "$cur"))
    else
      COMPREPLY=($(compgen -W "$commands" -- "$cur"))
    fi
    return
  fi

  if [[ $cur == -* ]]; then
    local own=""
    case $command in
      watch) own="--count --changes --interval" ;;
      methods) own="--names" ;;
    esac
    COMPREPLY=($(compgen -W "$global $own" -- "$cur"))
    return
  fi

  # Ask the broker, briefly: a completion must never hang the shell.
  local names=""
  case $command in
    call | methods)
      # The method is the first word after the command.
      [[ ${words[cword - 1]} == "$command" ]] &&
        names=$("${words[0]}" "${ask[@]}" --timeout 0.5 methods --names 2>/dev/null) ;;
    get | insert | raise | raise-micro | remove | type | timestamp | history | describe | descriptions | \
      subscribers | watch)
      names=$("${words[0]}" "${ask[@]}" --timeout 0.5 list 2>/dev/null) ;;
  esac
  [[ -n $names ]] && COMPREPLY=($(compgen -W "$names" -- "$cur"))
  return 0
}
complete -F _rxmemory rxmemory
