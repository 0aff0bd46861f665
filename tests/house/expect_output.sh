#!/usr/bin/env bash
# Runs a program, which has to succeed and to print what an extended regular expression matches, line ends written
# as ";": expect_output.sh EXPRESSION PROGRAM [ARGUMENT...]
set -euo pipefail
expression=$1
shift
output=$("$@")
printf '%s\n' "$output"
[[ ${output//$'\n'/;} =~ $expression ]] || { echo "This does not match $expression" && exit 1; }
