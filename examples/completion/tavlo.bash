# Completion of tavlo's command line for bash. Install it as
# /usr/share/bash-completion/completions/tavlo, or source it.

_tavlo() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  case $previous in
    -c | -f)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      ;;
    -p | --print-config-value)
      mapfile -t COMPREPLY < <(compgen -W "agentDstPort agentHttpPort agentHttpsPort lanInterface
        agentDstAddr agentPrefix agentUser routerInfoPath agentDataPath agentDirectory
        internalHooksDirectory externalHooksDirectory deviceDiscoveryPath rootPrefix" -- "$current")
      ;;
    *)
      mapfile -t COMPREPLY < <(compgen -W "-d -s -f -c -p -h --print-config-value" -- "$current")
      ;;
  esac
}
complete -F _tavlo tavlo
