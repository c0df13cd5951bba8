#compdef scctl
_scctl() {
  local -a lines shown
  lines=(${(f)"$(scctl completion words -- "${(@Q)words[2,CURRENT]}" 2>/dev/null)"})
  shown=(${${lines:#*[=/]}/$'\t'/  -- })
  compadd -S '' -- ${(M)lines:#*[=/]}
  compadd -d shown -- ${${lines:#*[=/]}%%$'\t'*}
  [[ $#lines != 0 && $words[2] != diff ]] || _files
}
if [[ $funcstack[1] == _scctl ]]; then _scctl; else compdef _scctl scctl; fi
