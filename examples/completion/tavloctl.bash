# Completion of tavloctl's command line for bash. Install it as
# /usr/share/bash-completion/completions/tavloctl, or source it.

_tavloctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} words
  if ((COMP_CWORD == 1)); then
    words="check hook log --help --version"
  else
    case ${COMP_WORDS[1]} in
      check) words="-c -f --connect --json --help" ;;
      hook)
        words="agent block_device device_detected dns_block http_block iot_protection settings_update
          -c --action --data --detail --hostname --mac --method --reason --uri --url --quiet --help"
        ;;
      log)
        words="--since --json --plot --help"
        [[ $current == -* ]] || previous=-f # a log
        ;;
    esac
  fi
  case $previous in
    -c | -f | --data | --plot)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      ;;
    *)
      mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
      ;;
  esac
}
complete -F _tavloctl tavloctl
