# Completion of retryq for bash. Commands, options and their words are those of retryq --help;
# messages are those in the queue.
_retryq_help() { # COMMAND: its options, or the commands when it is empty
  if [ -z "$1" ]; then
    retryq --help 2>/dev/null | sed -n '/^Subcommands:/,/^$/s/^  \([a-z-]*\) .*/\1/p'
  else
    retryq "$1" --help 2>/dev/null
  fi
}

_retryq() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} command= word i
  local commands
  commands=$(_retryq_help '')
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      -as | --as) ((i++)) ;;
      -*) ;;
      *) command=${COMP_WORDS[i]}; break ;;
    esac
  done
  COMPREPLY=()
  case $prev in
    --state) word='due waiting overdue unreadable on-hold held' ;;
    --by) word='domain code sender' ;;
    --sort) [ "$command" = summary ] && word='age count' || word='age size tries next rcpts' ;;
    --user) word=$(compgen -u) ;;
    --svg | --log) COMPREPLY=($(compgen -f -- "$cur")); return ;;
    *)
      if [ -z "$command" ]; then
        word="$commands -as --json --help --version"
      elif [[ $cur == -* ]]; then
        word="$(_retryq_help "$command" | grep -oE -- '--[a-z-]+' | sort -u) --json -as"
      else
        case $command in
          list | summary | route | check | settings | run) return ;;
          report | metrics) COMPREPLY=($(compgen -f -- "$cur")); return ;;
          *) word=$(retryq list --limit 1000 2>/dev/null | awk 'NR > 1 { print $1 }') ;;
        esac
      fi ;;
  esac
  COMPREPLY=($(compgen -W "$word" -- "$cur"))
}
complete -F _retryq retryq
