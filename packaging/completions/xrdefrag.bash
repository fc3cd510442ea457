# bash completion for xrdefrag(8)

_xrdefrag() {
  local current previous
  current=${COMP_WORDS[COMP_CWORD]}
  previous=${COMP_WORDS[COMP_CWORD - 1]}
  case $previous in
    -i | --interval)
      mapfile -t COMPREPLY < <(compgen -W '0.1 1 5' -- "$current")
      return
      ;;
    -s | --strings)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
  esac
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W '--help --interval --quit --strings --lowpri --hfsx' -- "$current")
    return
  fi
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen -f -- "${current:-/dev/}")
}

complete -F _xrdefrag xrdefrag
