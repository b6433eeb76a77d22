# Completion of tqdiscoweb for bash.

_tqdiscoweb()
{
  local word="${COMP_WORDS[COMP_CWORD]}"
  local options="--check-config --page --debug --log-level --version -h --help"
  case ${COMP_WORDS[COMP_CWORD - 1]} in
    --page)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -A directory -- "$word")
      ;;
    --log-level) mapfile -t COMPREPLY < <(compgen -W "0 1 4 6" -- "$word") ;;
    *) mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word") ;;
  esac
}
complete -F _tqdiscoweb tqdiscoweb
