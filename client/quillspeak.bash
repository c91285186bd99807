# Completion of quillspeak for bash.
_quillspeak() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]-} words='' options=''
  case ${COMP_WORDS[1]-} in
    say)
      options='--speed --voice --alert --silence --precedence --type --wait --no-wait'
      case $previous in
        --speed) words='1 2 3 4 5' ;;
        --voice) words='configured fast' ;;
        --precedence) words='normal polite urgent urgent-polite' ;;
      esac
      ;;
    status | watch | get) options='--json' ;;
  esac
  if ((COMP_CWORD == 1)); then
    words='say stop file volume reload status watch get set'
    options='--version'
  elif [[ ${COMP_WORDS[1]} == [gs]et ]] && ((COMP_CWORD == 2)); then
    words=$(quillspeak get 2>/dev/null | cut -d ' ' -f 1)
  fi
  [[ $current != -* ]] || words="$options --help"
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -o default -F _quillspeak quillspeak
