# Completion of tqdiscoctl for bash.

_tqdiscoctl()
{
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local everywhere="-m --master --timeout -v --verbose -h --help"
  local selection="-s --subject -a --authority -t --type --filter-data"
  local commands="status query hosts show items filters watch put push stop db"
  local command="" dbcommand="" word options i

  # The first word that is no option, nor the value of one, is the command.
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    case $word in
      -m | --master | --timeout | -d | --directory) ((i++)) ;;
      -*) ;;
      *)
        if [[ -z $command ]]; then
          command=$word
        elif [[ $command == db && -z $dbcommand ]]; then
          dbcommand=$word
        fi
        ;;
    esac
  done

  case $previous in
    -t | --type)
      options="server client external"
      [[ $command == put ]] || options+=" remotepull"
      mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
      return
      ;;
    -m | --master | --host)
      mapfile -t COMPREPLY < <(compgen -A hostname -- "$current")
      return
      ;;
    -d | --directory)
      mapfile -t COMPREPLY < <(compgen -d -- "$current")
      return
      ;;
    --timeout | -s | --subject | -a | --authority | -w | --where | -c | --columns | --sort | \
      --limit | \
      -n | --interval | --looks | -e | --expires-in | -p | --priority)
      return
      ;;
  esac

  case $command in
    "") options="$commands $everywhere --version" ;;
    status) options="-l --details --json" ;;
    query) options="$selection --json" ;;
    hosts) options="-s --subject --json" ;;
    show) options="-t --type -w --where --json --fact-list --xml --raw" ;;
    items)
      options="$selection -w --where -c --columns -l --details --sort --limit --count --json"
      options+=" --json-lines --fact-list"
      ;;
    filters) options="--json --xml" ;;
    watch) options="$selection -n --interval --looks --heartbeats --json" ;;
    put) options="-t --type -e --expires-in -p --priority --filter-data --unchecked --json" ;;
    push) options="--all --host --json" ;;
    stop) options="--host --no-wait --json" ;;
    db)
      case $dbcommand in
        "") options="list show verify -d --directory" ;;
        show) options="-d --directory -t --type --json --raw" ;;
        *) options="-d --directory --json" ;;
      esac
      ;;
    *) return ;;
  esac
  [[ -n $command ]] && options+=" $everywhere"

  mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
  if [[ $command == put && $current != -* ]]; then
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  fi
}
complete -F _tqdiscoctl tqdiscoctl
