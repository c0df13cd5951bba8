function __scctl_words
  set -l words (commandline -opc) (commandline -ct)
  scctl completion words -- $words[2..] 2>/dev/null
end
complete -c scctl -f -a '(__scctl_words)'
complete -c scctl -n '__fish_seen_subcommand_from diff; or not count (__scctl_words) >/dev/null' -F
