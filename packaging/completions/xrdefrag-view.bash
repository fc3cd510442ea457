# bash completion for xrdefrag-view(8)

_xrdefrag_view() {
  local current previous
  current=${COMP_WORDS[COMP_CWORD]}
  previous=${COMP_WORDS[COMP_CWORD - 1]}
  case $previous in
    --profile)
      mapfile -t COMPREPLY < <(compgen -W 'boot app boot,app' -- "$current")
      return
      ;;
    --privilege)
      mapfile -t COMPREPLY < <(compgen -W 'auto none userns sudo pkexec' -- "$current")
      return
      ;;
  esac
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W '--summary --json --report --save --compare --defrag --compact
      --profile --yes --hfsx --lowpri --privilege --program --ascii --no-color --help --version' -- "$current")
    return
  fi
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen -f -- "$current")
}

complete -F _xrdefrag_view xrdefrag-view
