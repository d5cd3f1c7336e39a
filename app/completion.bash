# Bash completion for dnnvad. Commands and options are read from its own --help.
_dnnvad() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} command= word
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ $word == -* ]] || { command=$word; break; }
  done
  local help
  help=$(dnnvad $command --help 2>/dev/null) || return
  case $previous in
    -f|--format)
      COMPREPLY=($(compgen -W "$(sed -n 's/.*--format TEXT:{\([^}]*\)}.*/\1/p' <<<"$help" | tr , ' ')" -- "$current"))
      return ;;
    --set)
      compopt -o nospace
      COMPREPLY=($(compgen -S = -W "$(dnnvad detect --set '?=0' - 2>&1 </dev/null | sed -n 's/^  //p')" -- "$current"))
      return ;;
  esac
  if [[ $current == -* ]]; then
    COMPREPLY=($(compgen -W "$(grep -oE '^ +(-[A-Za-z],)?--[a-z0-9-]+|^ +-[A-Za-z]' <<<"$help" | tr , '\n')" -- "$current"))
  elif [[ -z $command ]]; then
    COMPREPLY=($(compgen -W "$(sed -n '/^Subcommands:/,$ s/^  \([a-z-]*\) .*/\1/p' <<<"$help")" -- "$current"))
  else
    compopt -o filenames
    COMPREPLY=($(compgen -f -- "$current"))
  fi
}
complete -F _dnnvad dnnvad
