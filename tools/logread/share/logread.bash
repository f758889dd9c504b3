# bash completion of logread's options and their values.
_logread() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
  case $prev in
    --format) COMPREPLY=($(compgen -W "auto logdat plain sensor" -- "$cur")); return ;;
    --level) COMPREPLY=($(compgen -W "ERR WAR INF TRA DBG NONE untagged" -- "$cur")); return ;;
    --since|--until) COMPREPLY=($(compgen -W "today yesterday now -1h -30m -1d" -- "$cur")); return ;;
    --time) COMPREPLY=($(compgen -W "record iso" -- "$cur")); return ;;
    --color) COMPREPLY=($(compgen -W "auto always never" -- "$cur")); return ;;
    --thread|--source|-g|--grep|-n|--lines|--year) return ;;
  esac
  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "-h --help -f --follow --format --level --since --until --thread
      --source -g --grep -n --lines --year --time --json --summary --color -q --quiet
      --version" -- "$cur"))
    return
  fi
  compopt -o filenames 2>/dev/null
  COMPREPLY=($(compgen -f -- "$cur"))
}
complete -F _logread logread
