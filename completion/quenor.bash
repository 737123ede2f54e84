# What can be written next is asked of the program's own --help.
_quenor() {
  local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} said at options commands kinds
  local -a chain=("$1")
  said=$("${chain[@]}" --help 2>/dev/null)
  for ((at = 1; at < COMP_CWORD; at++)); do
    commands=" $(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\+\) .*/\1/p' <<<"$said" | tr '\n' ' ')"
    [[ $commands == *" ${COMP_WORDS[at]} "* ]] || break
    chain+=("${COMP_WORDS[at]}")
    said=$("${chain[@]}" --help 2>/dev/null)
  done
  options=$(sed -n '/^Options:/,/^$/s/^  \(-[^ ]*\).*/\1/p' <<<"$said" | tr ',' '\n')
  kinds=$(sed -n "s/^  \(.*,\)\?$before\(,[^ ]*\)\? [A-Z]*:{\(.*\)}.*/\3/p" <<<"$said" | tr ',' '\n')
  commands=$(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\+\) .*/\1/p' <<<"$said")
  case $current in
    -*) COMPREPLY=($(compgen -W "$options" -- "$current")) ;;
    *) COMPREPLY=($(compgen -W "${kinds:-$commands}" -- "$current")) ;;  # Nothing: file names.
  esac
}
complete -o default -F _quenor quenor-report quenor-collector quenor-fleet
