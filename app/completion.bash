# Bash completion for dnnvad. Commands and options are read from its own --help.
_dnnvad() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} command= before= word
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ $word == -* || $before == --library-log ]] || { command=$word; break; }
    before=$word
  done
  local help words
  help=$(dnnvad $command --help 2>/dev/null) || return
  words=$(sed -nE "s/^ +(-.,)?${previous:-x} [A-Z]+:\{([^}]*)\}.*/\2/p; s/^ +${previous:-x},--.*\{([^}]*)\}.*/\1/p" <<<"$help" | tr , ' ')
  if [[ $previous == --set ]]; then
    compopt -o nospace
    words=$(dnnvad live --set '?=0' 2>&1 | sed -n 's/^  //p' | sed 's/$/=/')
  fi
  if [[ $previous == -* && -n $words ]]; then
    COMPREPLY=($(compgen -W "$words" -- "$current"))
    return
  fi
  if [[ $current == -* ]]; then
    COMPREPLY=($(compgen -W "$(grep -oE '^ +(-[A-Za-z],)?--[a-z0-9-]+|^ +-[A-Za-z]' <<<"$help" | tr , '\n')" -- "$current"))
  elif [[ -z $command ]]; then
    COMPREPLY=($(compgen -W "$(sed -n '/^Subcommands:/,$ s/^  \([a-z-]*\) .*/\1/p' <<<"$help")" -- "$current"))
  else
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  fi
}
complete -F _dnnvad dnnvad
