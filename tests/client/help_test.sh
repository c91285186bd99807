#!/bin/bash
# Each command and option of the help is in the man page and among the words that are completed, and
# the help is free of what the library would add. Usage: help_test.sh PROGRAM CLIENT_FOLDER
set -eu -o pipefail
program=$1
folder=$2
# What the completion asks for the keys of properties.
PATH=$(dirname "$program"):$PATH
# shellcheck source=client/quillspeak.bash
. "$folder/quillspeak.bash"

fail() {
  echo "$*" >&2
  exit 1
}
completes() {
  COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
  _quillspeak
  [[ " ${COMPREPLY[*]-} " == *" ${!#} "* ]] || fail "not completed: $*"
}
documented() {
  grep -qF -e "${1//-/\\-}" "$folder/quillspeak.1" || fail "not in the man page: $1"
}

COMP_WORDS=(quillspeak file Text '') COMP_CWORD=3
_quillspeak
[[ -z ${COMPREPLY[*]-} ]] || fail "in the place of a file: ${COMPREPLY[*]}"
completes quillspeak get qs_voice
completes quillspeak set qs_voice
commands=$("$program" --help | sed '1,/^Subcommands:/d' | sed -nE 's/^  ([a-z]+) .*/\1/p')
[[ $(wc -w <<<"$commands") -ge 9 ]] || fail "the help lists too few commands"
for command in $commands; do
  completes quillspeak "$command"
  documented "$command"
  help=$("$program" "$command" --help)
  grep -q '^Exit codes: 0 .* 2 usage' <<<"$help" || fail "no exit codes: $command"
  ! grep -E 'REQUIRED|INT|TEXT|BOOLEAN|[{}]' <<<"$help" || fail "raw help: $command"
  while read -r option; do
    completes quillspeak "$command" "$option"
    documented "$option"
  done < <(sed -nE 's/^  (-h,)?(--[a-z-]+).*/\2/p' <<<"$help")
done
