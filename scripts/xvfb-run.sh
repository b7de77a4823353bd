#!/usr/bin/env bash
# Runs a command against a private Xvfb: xvfb-run.sh COMMAND [ARGS...]
# Starts Xvfb (-nolisten tcp) on a free display number, waits until a client can connect, runs the command with
# DISPLAY and ZEL_XVFB_DISPLAY set to that display, stops Xvfb by its pid and exits with the command's status.
set -euo pipefail
[ $# -ge 1 ] || { echo "usage: $0 COMMAND [ARGS...]" >&2; exit 2; }
here=$(cd "$(dirname "$0")" && pwd)
state=$(mktemp -d "${TMPDIR:-/tmp}/zel-xvfb.XXXXXX")
cleanup() { bash "$here/xvfb-fixture.sh" stop "$state" || true; rm -rf "$state"; }
trap cleanup EXIT
trap 'exit 130' INT TERM
display=$(bash "$here/xvfb-fixture.sh" start "$state")
status=0
DISPLAY=$display ZEL_XVFB_DISPLAY=$display "$@" || status=$?
exit "$status"
