_scctl() {
  mapfile -t COMPREPLY < <(
    scctl completion words -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null
    [[ ${COMP_WORDS[1]} != diff ]] || compgen -f -- "${COMP_WORDS[COMP_CWORD]}"
  )
  COMPREPLY=("${COMPREPLY[@]%%$'\t'*}")
  [[ ${COMPREPLY[0]} != *[=/] ]] || compopt -o nospace 2>/dev/null
}
complete -o default -F _scctl scctl
