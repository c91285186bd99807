# Completion of quillspeak for bash.
_quillspeak() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]-} words
  case ${COMP_WORDS[1]-} in
    say)
      words='--speed --voice --alert --silence --precedence --type --wait --no-wait --help'
      case $previous in
        --speed) words='1 2 3 4 5' ;;
        --voice) words='configured fast' ;;
        --precedence) words='normal polite urgent urgent-polite' ;;
      esac
      ;;
    status | watch) words='--json --help' ;;
    get) words="--json --help $(quillspeak get 2>/dev/null | cut -d ' ' -f 1)" ;;
    set) words="--help $(quillspeak get 2>/dev/null | cut -d ' ' -f 1)" ;;
    *) words='--help' ;;
  esac
  if ((COMP_CWORD == 1)); then
    words='say stop file volume reload status watch get set --help --version'
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -o default -F _quillspeak quillspeak
