#!/usr/bin/env bash
# Runs a command on the test Xvfb started by the "xvfb" test fixture: with-display.sh DISPLAY_FILE COMMAND [ARGS...]
# DISPLAY_FILE is the file the fixture wrote (${ZEL_XVFB_DISPLAY_FILE} in CMake); DISPLAY and ZEL_XVFB_DISPLAY are
# set to the display it names.
set -euo pipefail
[ $# -ge 2 ] || { echo "usage: $0 DISPLAY_FILE COMMAND [ARGS...]" >&2; exit 2; }
file=$1
shift
if [ ! -s "$file" ]; then
  echo "with-display.sh: no test display in $file (does the test have FIXTURES_REQUIRED xvfb?)" >&2
  exit 1
fi
display=$(cat "$file")
export DISPLAY=$display ZEL_XVFB_DISPLAY=$display
exec "$@"
