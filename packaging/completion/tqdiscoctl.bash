# Completion of tqdiscoctl for bash.

# What a service tells is anybody's text. It is offered as a word of the command line
# that stands for nothing but itself, and never as a list for "compgen -W", which
# would expand it. Names that JSON has to escape are left out.
_tqdiscoctl_offer()
{
  local name
  COMPREPLY=()
  while IFS= read -r name; do
    [[ $name != "$current"* || $name == *\\* ]] || COMPREPLY+=("$(printf %q "$name")")
  done < <("$@")
}

# The values of a member of the records that the service lists, which is asked
# for no longer than somebody at a terminal waits.
_tqdiscoctl_ask()
{
  timeout 2 "$program" "${master[@]}" --timeout 1 query --json 2> /dev/null |
    sed -n "s/^ *\"$1\": \"\(.*\)\",\$/\1/p" | sort -u
}

# The facts of the first item that there is.
_tqdiscoctl_facts()
{
  timeout 2 "$program" "${master[@]}" --timeout 1 items "${chosen[@]}" --json-lines --fact-list \
    2> /dev/null | head -n 1 | grep -o '"name":"[^"]*","value"' | cut -d '"' -f 4 | sort -u
}

_tqdiscoctl()
{
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local everywhere="-m --master --timeout --tls --tls-certificate --tls-key --tls-ca -v --verbose"
  everywhere+=" -h --help"
  local selection="-s --subject -a --authority -t --type --filter-data"
  local commands="status query hosts show items filters watch metrics report sql put push stop explorer db tls which-master"
  local program=${COMP_WORDS[0]} command="" dbcommand="" word value options i at names=0
  local -a master=() chosen=()

  # The first word that is no option, nor the value of one, is the command.
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    case $word in
      -m | --master | --timeout | --tls | --tls-certificate | --tls-key | --tls-ca | -d | --directory | -s | --subject | -a | --authority | -t | \
        --type | -w | --where | -c | --columns | --sort | --group-by | --limit | -n | --interval | --looks | \
        -e | --expires-in | -p | --priority | --host | --textfile | --html | --masters)
        ((++i))
        value=${COMP_WORDS[i]}
        # The shell takes HOST:PORT apart at the colons.
        for ((at = i + 1; at < COMP_CWORD; at += 2)); do
          [[ ${COMP_WORDS[at]} =~ ^:+$ ]] || break
          value+=${COMP_WORDS[at]}${COMP_WORDS[at + 1]}
          ((i = at + 1))
        done
        case $word in
          -m | --master) master=(--master "$value") ;;
          -s | --subject | -a | --authority) chosen+=("$word" "$value") ;;
        esac
        ;;
      -*) ;;
      *)
        if [[ -z $command ]]; then
          command=$word
        elif [[ ($command == db || $command == explorer) && -z $dbcommand ]]; then
          dbcommand=$word
        else
          ((++names))
        fi
        ;;
    esac
  done
  # A port, or what follows another colon.
  [[ $previous != : && $current != : ]] || [[ -n $command ]] || return

  case $previous in
    -t | --type)
      options="server client external"
      [[ $command == put ]] || options+=" remotepull"
      mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
      return
      ;;
    -s | --subject | --host)
      _tqdiscoctl_offer _tqdiscoctl_ask subject
      return
      ;;
    -a | --authority)
      _tqdiscoctl_offer _tqdiscoctl_ask authority
      return
      ;;
    -c | --columns | --sort | --group-by | -w | --where)
      _tqdiscoctl_offer _tqdiscoctl_facts
      return
      ;;
    -m | --master | --masters)
      mapfile -t COMPREPLY < <(compgen -A hostname -- "$current")
      return
      ;;
    --tls)
      mapfile -t COMPREPLY < <(compgen -W "off both only" -- "$current")
      return
      ;;
    --tls-certificate | --tls-key | --tls-ca | --textfile | --html)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
    -d | --directory)
      mapfile -t COMPREPLY < <(compgen -d -- "$current")
      return
      ;;
    --timeout | --limit | -n | --interval | --looks | -e | --expires-in | -p | --priority)
      return
      ;;
  esac

  # Where a subject, or an authority, is to be named.
  if [[ $current != -* ]]; then
    case $command:$names in
      show:0 | filters:0 | put:0)
        _tqdiscoctl_offer _tqdiscoctl_ask subject
        ;;
      show:1 | filters:1 | put:1)
        _tqdiscoctl_offer _tqdiscoctl_ask authority
        ;;
    esac
    ((${#COMPREPLY[@]} == 0)) || return
  fi

  case $command in
    "") options="$commands $everywhere --version" ;;
    status) options="-l --details --json" ;;
    query) options="$selection --json" ;;
    hosts) options="-s --subject --json" ;;
    show) options="-t --type -w --where --json --fact-list --xml --raw" ;;
    items)
      options="$selection -w --where -c --columns -l --details --sort --limit --count --json"
      options+=" --json-lines --fact-list --all --csv --ansible --group-by"
      ;;
    filters) options="--json --xml" ;;
    watch) options="$selection -n --interval --looks --heartbeats --json" ;;
    metrics) options="--textfile --host" ;;
    report) options="--html" ;;
    sql) options="--json" ;;
    put) options="-t --type -e --expires-in -p --priority --filter-data --items --unchecked --json" ;;
    push) options="--all --host --now -a --authority --json" ;;
    stop) options="--host --no-wait --json" ;;
    tls) options="check" ;;
    which-master) options="--masters --json" ;;
    explorer)
      case $dbcommand in
        "") options="list enable test" ;;
        list) options="--host --json" ;;
        *) options="--json" ;;
      esac
      ;;
    db)
      case $dbcommand in
        "") options="list show verify forget -d --directory" ;;
        show) options="-d --directory -t --type --json --raw" ;;
        verify) options="-d --directory -q --quick --json" ;;
        forget) options="-d --directory -t --type -n --dry-run -y --yes --json" ;;
        *) options="-d --directory --json" ;;
      esac
      ;;
    *) return ;;
  esac
  [[ -n $command ]] && options+=" $everywhere"

  mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
  if [[ ($command == put || $command:$dbcommand == explorer:test) && $current != -* ]]; then
    compopt -o filenames 2> /dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  fi
}
complete -F _tqdiscoctl tqdiscoctl
