# What zsh completes: complete.zsh FOLDER FILE, where the folder has the completion _qpx, and the file
# a command line in each line. Writes each of them behind "> ", and under it the words offered.
#
# An interactive zsh completes in a terminal of its own. A widget there runs the completion; compadd,
# which gets the words, is replaced by a function that writes them down, too. Its mark tells
# that a line has been completed.

emulate -R zsh
zmodload zsh/zpty || exit 1

folder=$1
lines=("${(@f)$(<$2)}")
work=$(mktemp -d) || exit 1
trap 'zpty -d shell 2>/dev/null; rm -rf $work' EXIT

cat >$work/inner <<'ZSH'
PROMPT=
unsetopt beep zle_bracketed_paste 2>/dev/null
fpath=($FOLDER $fpath)
autoload -U compinit
compinit -u -d $WORK/dump
compadd() {
    local -a words
    if (( ! ${@[(I)-[OAD]*]} )); then
        builtin compadd -A words "$@"
        print -rl -- $words >>$WORK/words
    fi
    builtin compadd "$@"
}
offer() {
    _main_complete
    compstate[insert]=
    compstate[list]=
    print 'MARK'-END
}
zle -C offer complete-word offer
bindkey '^I' offer
print 'MARK'-READY
ZSH

export FOLDER=$folder WORK=$work HOME=$work TERM=dumb
zpty shell zsh -f -i
zpty -w shell "source $work/inner"
zpty -r -m shell seen '*MARK-READY*' || exit 1
for line in $lines; do
    : >$work/words
    zpty -n -w shell "$line"$'\t'
    zpty -r -m shell seen '*MARK-END*' || exit 1
    print -r -- "> $line"
    sort -u $work/words | sed '/^$/d'
    zpty -n -w shell $'\x15' # forgets the line
done
