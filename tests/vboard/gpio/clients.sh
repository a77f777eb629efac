#!/bin/sh
# SPDX-License-Identifier: MIT
# clients.sh VARNEL_BOARD: the tools of package gpiod, versions 1 and 2, on a board of this test's
# own. Exit code 77: the tools are not installed.
set -u
launcher=$1
command -v gpiodetect > /dev/null || exit 77
folder=$(mktemp -d) || exit 1
trap 'rm -rf "$folder"' EXIT

cat > "$folder/board.toml" <<'BOARD'
[gpiochip0]
label = "first"
lines = 8
names = { 2 = "LATCH" }
reserved = { 7 = "regulator" }

[gpiochip1]
label = "second"
lines = 4

[pulls]
LATCH = "up"
BOARD

board() {
  "$launcher" "$folder/board.toml" --report none -- "$@" 2> "$folder/errors"
}

failures=0
# expect WHAT EXPECTED COMMAND...: the command's output, every blank run as one.
expect() {
  what=$1
  expected=$2
  shift 2
  got=$(board "$@" | tr -s ' \t\n' ' ')
  if [ "$got" != "$expected" ]; then
    printf '%s:\n  expected "%s"\n  got      "%s"\n' "$what" "$expected" "$got"
    cat "$folder/errors"
    failures=$((failures + 1))
  fi
}
# expect_part WHAT PATTERN COMMAND...: a line of the output matches.
expect_part() {
  what=$1
  pattern=$2
  shift 2
  if ! board "$@" | tr -s ' \t' ' ' | grep -q -e "$pattern"; then
    printf '%s: no line matches "%s" in\n' "$what" "$pattern"
    board "$@"
    cat "$folder/errors"
    failures=$((failures + 1))
  fi
}
# refuses WHAT TEXT COMMAND...: the command fails and says why.
refuses() {
  what=$1
  text=$2
  shift 2
  if board "$@" > "$folder/output" || ! grep -q -e "$text" "$folder/errors"; then
    printf '%s: no failure with "%s" but\n' "$what" "$text"
    cat "$folder/output" "$folder/errors"
    failures=$((failures + 1))
  fi
}

expect 'both chips are found' 'gpiochip0 [first] (8 lines) gpiochip1 [second] (4 lines) ' gpiodetect

if gpioget --version | head -n 1 | grep -q 'v2'; then
  expect_part 'a named line' 'line 2: "LATCH" input' gpioinfo -c gpiochip0
  expect_part 'a reserved line' 'line 7: .*consumer="\{0,1\}regulator' gpioinfo -c gpiochip0
  expect 'a pulled-up input' '1 ' gpioget --numeric -c gpiochip0 2
  expect 'the same by name' '1 ' gpioget --numeric LATCH
  expect 'the same as active-low' '0 ' gpioget --numeric -l -c gpiochip0 2
  expect 'two lines, one pulled by its controller' '1 1 ' \
    gpioget --numeric -b pull-up -c gpiochip0 3 2
  expect 'a pull down' '0 ' gpioget --numeric -b pull-down -c gpiochip0 3
  refuses 'a reserved line' 'busy' gpioget -c gpiochip0 7
  refuses 'a line that is not there' 'out of range\|cannot find\|not find' gpioget -c gpiochip0 8
  refuses 'setting a reserved line' 'busy' gpioset -t 0 -c gpiochip0 7=1
  expect 'setting lines' '' gpioset -t 0 -c gpiochip0 1=1 3=0
else
  expect_part 'a named line' 'line 2: "LATCH" unused input active-high' gpioinfo gpiochip0
  expect_part 'a reserved line' 'line 7: unnamed "regulator" input active-high \[used\]' \
    gpioinfo gpiochip0
  expect 'finding a line by its name' 'gpiochip0 2 ' gpiofind LATCH
  expect 'a pulled-up input' '1 ' gpioget gpiochip0 2
  expect 'the same as active-low' '0 ' gpioget -l gpiochip0 2
  expect 'two lines, one pulled by its controller' '1 1 ' gpioget -B pull-up gpiochip0 3 2
  expect 'a pull down' '0 ' gpioget -B pull-down gpiochip0 3
  refuses 'a reserved line' 'busy' gpioget gpiochip0 7
  refuses 'setting a reserved line' 'busy' gpioset gpiochip0 7=1
  refuses 'a line that is not there' 'Invalid argument' gpioget gpiochip0 8
  expect 'setting lines' '' gpioset gpiochip0 1=1 3=0
fi

[ "$failures" -eq 0 ] && echo 'all as expected'
exit "$((failures != 0))"
