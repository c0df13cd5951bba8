_scctl() {
  local command=${COMP_WORDS[1]} word=${COMP_WORDS[COMP_CWORD]}
  local before=${COMP_WORDS[COMP_CWORD - 1]} options='--help --overlay --secrets' fields=''
  local words='' ahead=''
  local commands='tables fields areas list get find dump add set del clear bind unbind batch init save restore remove notify lease export import diff checkpoint checkpoints rollback check repair locks watch try confirm revert log undo overlay schema completion help'
  local tables='lan_settings lan_binds ac_binds wan wan_rest product_info misc_1 misc_2 misc_3 misc_4 misc_5 ip_groups time_groups port_forward ip_filter mac_filter url_filter qos aps ap_users ap_templates default_template client_groups clients'
  local areas='Lan Wan ProductInfo Misc VsIpport FwIpport IpGroup TimeGroup FwMac FwUrl Qos ManageApList ApUserList ApTemplateList DefApTemplate Clients_Groups Clients'
  case $command in
    tables) options+=' --json' ;;
    fields) options+=' --json' ;;
    areas) options+=' --json' ;;
    list) options+=' --json --commands --image --archive' ;;
    get) options+=' --json --commands --image --archive' ;;
    find) options+=' --json --commands --image --archive' ;;
    dump) options+=' --image --archive' ;;
    add) options+=' --image --archive --in-place' ;;
    set) options+=' --image --archive --in-place' ;;
    del) options+=' --image --archive --in-place' ;;
    clear) options+=' --image --archive --in-place' ;;
    batch) options+=' --image --archive --in-place' ;;
    init) options+=' --all' ;;
    save) options+=' --all' ;;
    restore) options+=' --all' ;;
    remove) options+=' --all' ;;
    notify) options+=' --all' ;;
    export) options+=' --image --archive' ;;
    import) options+=' --dry-run --image --archive --in-place --rename' ;;
    checkpoint) options+=' --delete' ;;
    checkpoints) options+=' --json' ;;
    rollback) options+=' --dry-run --timeout' ;;
    check) options+=' --image --archive' ;;
    repair) options+=' --all --dry-run --image --archive --in-place' ;;
    locks) options+=' --json' ;;
    watch) options+=' --exec --count' ;;
    try) options+=' --json --timeout --status' ;;
    confirm) options+=' --only-mine' ;;
    log) options+=' --json' ;;
    overlay) options+=' --image --archive' ;;
  esac
  case ${COMP_WORDS[2]%%/*} in
    lan_settings) fields='settings' ;;
    lan_binds) fields='mac ip flag name' ;;
    ac_binds) fields='mac ip flag name' ;;
    wan) fields='settings' ;;
    wan_rest) fields='settings' ;;
    product_info) fields='settings' ;;
    misc_1) fields='settings' ;;
    misc_2) fields='settings' ;;
    misc_3) fields='settings' ;;
    misc_4) fields='settings' ;;
    misc_5) fields='settings' ;;
    ip_groups) fields='leading_text start_ip_text end_ip_text trailing_text' ;;
    time_groups) fields='leading_text weekday start_time end_time trailing_text' ;;
    port_forward) fields='leading_text ip_text option_1 number_1 number_2 number_3 number_4 option_2 option_3 trailing_text' ;;
    ip_filter) fields='leading_text ip_mode ip_group_id start_ip_text end_ip_text param_1 param_2 param_byte time_mode time_group_id weekday start_time end_time rule_flag trailing_text' ;;
    mac_filter) fields='mac leading_text time_mode time_group_id weekday start_time end_time rule_flag trailing_text' ;;
    url_filter) fields='url leading_text time_mode time_group_id weekday start_time end_time rule_flag trailing_text' ;;
    qos) fields='leading_text match_kind match_text ip_mode ip_group_id start_ip_text end_ip_text param_1 param_2 param_byte time_mode time_group_id weekday start_time end_time rule_flag trailing_text' ;;
    aps) fields='ap_mac run_state group_id group_info wtp_frag_len opaque_4 opaque_138 opaque_242 opaque_399 opaque_11792 opaque_11800' ;;
    ap_users) fields='user_mac opaque_14' ;;
    ap_templates) fields='template_name bound_ap_mac opaque_8 opaque_108 opaque_11422' ;;
    default_template) fields='settings' ;;
    client_groups) fields='group_name' ;;
    clients) fields='client_mac text_52 text_82 text_102 text_122 text_142 text_162 text_182 field_14 field_16 field_20 field_24 field_26 field_27 field_28 field_29 field_30 field_31 field_32 field_34 field_36 field_40 field_44 field_48' ;;
  esac
  if [[ $COMP_CWORD == 1 ]]; then
    words="$commands --help --version"
  elif [[ $before == = || $word == = ||
    $before =~ ^--(image|archive|exec|count|timeout|overlay|rename)$ ]]; then
    return
  elif [[ $word == -* ]]; then
    words=$options
  elif [[ $command == get && $word == */*.* ]]; then
    words=$fields ahead=${word%.*}. word=${word##*.}
  else
    case $command:$COMP_CWORD in
      help:2) words=$commands ;;
      lease:2) words='save restore' ;;
      overlay:2) words='import cover' ;;
      lease:3) words='clients aps' ;;
      bind:2|unbind:2) words=ap_templates/ ;;
      bind:3) words=aps/ ;;
      diff:2|diff:3) words='live saved try' ;;
      try:2|try:4) words='batch import --' ;;
      rollback:2) ;;
      fields:2|list:2|get:2|find:2|add:2|set:2|del:2|clear:2) words=$tables ;;
      find:*|add:*|set:*) words=${fields// /= }${fields:+=} ;;
      dump:*|init:*|save:*|restore:*|remove:*|notify:*|export:*|rollback:*|check:*|repair:*|watch:*|overlay:*) words=$areas ;;
    esac
  fi
  mapfile -t COMPREPLY < <(
    compgen -P "$ahead" -W "$words" -- "$word"
    [[ $command != diff ]] || compgen -f -- "$word"
  )
  [[ ${COMPREPLY[0]} != *[=/] ]] || compopt -o nospace 2>/dev/null
}
complete -o default -F _scctl scctl
