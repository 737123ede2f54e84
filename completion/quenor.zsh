#compdef quenor-report quenor-collector quenor-fleet
# What can be written next is asked of the program's own --help.
local said kinds
local -a chain=($words[1]) options commands
local -i at=2
while true; do
  said=$($chain --help 2>/dev/null)
  commands=(${(f)"$(sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+) +(.*)/\1:\2/p' <<<$said)"})
  (( at < CURRENT && ${commands[(I)$words[at]:*]} )) || break
  chain+=($words[at++])
done
options=(${(f)"$(sed -nE '/^Options:/,/^$/s/^  (-[^ ]*).*/\1/p' <<<$said | tr , '\n')"})
kinds=$(sed -nE "s/^  (.*,)?$words[CURRENT-1](,[^ ]*)? [A-Z]*:\{(.*)\}.*/\3/p" <<<$said)
if [[ $PREFIX == -* ]]; then compadd -- $options
elif [[ -n $kinds ]]; then compadd -- ${(s:,:)kinds}
elif (( $#commands )); then _describe command commands
else _files
fi
