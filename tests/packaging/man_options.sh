#!/usr/bin/env bash
# The man pages and the programs agree: every option and command that
# `waymarkd --help` and `waymarkctl --help` print is in its man page's
# source, and every option the man page names is one the program prints.
set -uo pipefail
BUILD=${1:-build}
MAN=$(dirname "$0")/../../docs/man
status=0

words() { grep -o -- '--[a-z][a-z-]*' | sort -u; }
compare() {  # PROGRAM HELP-WORDS MAN-WORDS WHAT
  local missing extra
  missing=$(comm -23 <(echo "$2") <(echo "$3"))
  extra=$(comm -13 <(echo "$2") <(echo "$3"))
  if [ -n "$missing" ]; then echo "FAIL $1: $4 in --help but not in the man page: $missing"; status=1; fi
  if [ -n "$extra" ]; then echo "FAIL $1: $4 in the man page but not in --help: $extra"; status=1; fi
  [ -z "$missing$extra" ] && echo "ok   $1: $4 agree ($(echo "$2" | wc -l))"
}

for program in waymarkd waymarkctl; do
  binary=$BUILD/daemon/$program
  [ "$program" = waymarkctl ] && binary=$BUILD/cli/$program
  help=$("$binary" --help 2>&1)
  page=$(sed 's/\\//g' "$MAN/$program.8.scd")
  compare $program "$(echo "$help" | words)" "$(echo "$page" | words)" options
done
# waymarkctl's commands: the first word after the socket option, each usage line.
commands=$("$BUILD/cli/waymarkctl" --help 2>&1 | sed -n 's/.*\[--socket PATH\] \([a-z|-]*\).*/\1/p' | tr '|' '\n' | sort -u)
documented=$(sed -n 's/^\*\([a-z-]*\)\*.*/\1/p' "$MAN/waymarkctl.8.scd" | sort -u)
missing=$(comm -23 <(echo "$commands") <(echo "$documented"))
if [ -n "$missing" ]; then echo "FAIL waymarkctl: commands without a man entry: $missing"; status=1; else
  echo "ok   waymarkctl: every command has a man entry"; fi
exit $status
