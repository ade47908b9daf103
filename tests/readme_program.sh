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

# expectCmakeConsumer PREFIX: a project beside first.c finds the package installed at PREFIX, and its program runs.
expectCmakeConsumer() {
    cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(dif 1.0 REQUIRED)
add_executable(with_cmake first.c)
target_link_libraries(with_cmake PRIVATE dif::dif_host dif::dif)
END
    cmake -G Ninja -S . -B consumer -DCMAKE_PREFIX_PATH="$1" >/dev/null
    cmake --build consumer >/dev/null
    expectReadmeOutput find_package consumer/with_cmake
}
