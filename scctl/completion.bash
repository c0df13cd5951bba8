_scctl() {
  local word typed=${COMP_WORDS[COMP_CWORD]}
  COMPREPLY=()
  while IFS=$'\t' read -r word _; do
    [[ $word != "$typed"* ]] || COMPREPLY+=("$word")
  done < <(
    scctl completion words -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null
    [[ ${COMP_WORDS[1]} != diff ]] || compgen -f -- "$typed"
  )
  [[ ${COMPREPLY[0]} != *[=/] ]] || compopt -o nospace 2>/dev/null
}
complete -o default -F _scctl scctl
