#!/bin/zsh -f
# completion_test.zsh COMPLETION WORD...
# Prints what the completion offers for the last word, which is begun, as zsh would: with its own compadd, compset and
# _files.
compadd() { shift; print -l -- ${(M)@:#${PREFIX}*}; }
compset() { PREFIX=${PREFIX#*=}; }
_files() { if [[ $1 == -/ ]]; then print -l -- ${PREFIX}*(N/); else print -l -- ${PREFIX}*(N); fi; }

completion=$1
shift
words=("$@")
CURRENT=$#words
PREFIX=$words[CURRENT]
source $completion
