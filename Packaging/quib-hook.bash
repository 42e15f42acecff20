# Completion of quib-hook for bash.
_quib_hook() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  case $previous in
    --app) COMPREPLY=($(compgen -W "claude cursor copilot" -- "$current")) ;;
    --profile)
      local profiles
      profiles=$(sed -n 's/^[[:space:]]*\[[[:space:]]*\(.*[^[:space:]]\)[[:space:]]*\][[:space:]]*$/\1/p' \
        ~/.obrisk/config 2>/dev/null)
      COMPREPLY=($(compgen -W "$profiles" -- "$current"))
      ;;
    *)
      COMPREPLY=($(compgen -W "--app --profile --install-claude --install-cursor --install-copilot --help --version" \
        -- "$current"))
      ;;
  esac
}
complete -F _quib_hook quib-hook
