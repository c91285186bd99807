# Completion of quillspeak for bash.
_quillspeak() {
  local current=${COMP_WORDS[COMP_CWORD]} words
  case ${COMP_WORDS[1]-} in
    say) words='--speed --voice --alert --silence --precedence --type --no-wait --help' ;;
    status | watch) words='--json --help' ;;
    *) words='--help' ;;
  esac
  if ((COMP_CWORD == 1)); then
    words='say stop file volume reload status watch get set --help --version'
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -o default -F _quillspeak quillspeak
