# Completion of tqdisco for bash.

_tqdisco()
{
  local options="--check-config --dump-config --json --debug --log-level --version -h --help"
  mapfile -t COMPREPLY < <(compgen -W "$options" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -F _tqdisco tqdisco
