# What can be written next is asked of the program's own --help.
function __quenor_words
    set -l words (commandline -opc)
    set -l chain $words[1]
    set -l said ($chain --help 2>/dev/null)
    for word in $words[2..]
        printf '%s\n' $said | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\+\) .*/\1/p' | grep -qxF -- $word; or break
        set -a chain $word
        set said ($chain --help 2>/dev/null)
    end
    set -l kinds (printf '%s\n' $said | sed -nE "s/^  (.*,)?$words[-1](,[^ ]*)? [A-Z]*:\{(.*)\}.*/\3/p")
    if test -n "$kinds"
        string split , $kinds
        return
    end
    printf '%s\n' $said | sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+) +(.*)/\1\t\2/p'
    printf '%s\n' $said | sed -nE '/^Options:/,/^$/s/^  (-[^ ]*).*/\1/p' | tr , '\n'
end
for program in quenor-report quenor-collector quenor-fleet
    complete -c $program -a '(__quenor_words)'
end
