_scctl() {
  local words
  if [[ $COMP_CWORD == 1 ]]; then
    words='tables fields areas list get find dump add set del clear bind unbind batch init save restore remove notify lease export import diff check locks watch completion --help'
  else
    case ${COMP_WORDS[1]} in
      fields|list|get|find|add|set|del|clear) words='lan_settings lan_binds ac_binds wan wan_rest product_info misc_1 misc_2 misc_3 misc_4 misc_5 ip_groups time_groups port_forward ip_filter mac_filter url_filter qos aps ap_users ap_templates default_template client_groups clients' ;;
      dump|init|save|restore|remove|notify|export|check|watch) words='Lan Wan ProductInfo Misc VsIpport FwIpport IpGroup TimeGroup FwMac FwUrl Qos ManageApList ApUserList ApTemplateList DefApTemplate Clients_Groups Clients' ;;
      *) return ;;
    esac
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -o default -F _scctl scctl
