# The first program of README.md, for the tests of an installation.
# shellcheck shell=bash
readme=$(dirname "$(realpath "${BASH_SOURCE[0]}")")/../README.md

# Its source, and what README.md says it prints.
readmeProgram() { sed -n '/^```c$/,/^```$/{/^```$/q;/^```c$/!p}' "$readme"; }
readmeOutput() { sed -n '/^prints$/,/^[^ ]/{s/^    //p}' "$readme"; }

# expectReadmeOutput WHAT COMMAND...: the command must print what README.md says.
expectReadmeOutput() {
    local what=$1
    shift
    diff <(readmeOutput) <("$@") || { echo "$what: the program does not print what README.md says" >&2; exit 1; }
    echo "$what: ok"
}
