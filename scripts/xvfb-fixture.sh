#!/usr/bin/env bash
# A private Xvfb for the tests, kept in a state directory.
#   xvfb-fixture.sh start STATE_DIR   starts Xvfb on a free display number, waits until a client can connect,
#                                     writes STATE_DIR/display (":N") and STATE_DIR/pid, prints ":N"
#   xvfb-fixture.sh stop STATE_DIR    stops the Xvfb recorded in STATE_DIR (by its pid) and removes the files
# The server runs with -noreset: its state (pointer position, held buttons) survives the last client leaving.
# Display numbers are tried from ZEL_XVFB_FIRST (default 64) to ZEL_XVFB_LAST (default 511); ZEL_XVFB_ARGS adds
# server options (for example "-maxclients 64").
set -euo pipefail

usage() { echo "usage: $0 start|stop STATE_DIR" >&2; exit 2; }
[ $# -eq 2 ] || usage
command=$1
dir=$2

# Whether pid $1 is a live Xvfb process (an exited one waiting to be reaped does not count).
is_xvfb() {
  [ -n "$1" ] && [ "$(cat "/proc/$1/comm" 2>/dev/null)" = "Xvfb" ] || return 1
  local stat
  stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
  stat=${stat##*) }
  [ "${stat%% *}" != "Z" ]
}

stop() {
  local pid=""
  [ -f "$dir/pid" ] && pid=$(cat "$dir/pid")
  if is_xvfb "$pid"; then
    kill -TERM "$pid" 2>/dev/null || true
    for _ in $(seq 1 50); do
      is_xvfb "$pid" || break
      sleep 0.1
    done
    if is_xvfb "$pid"; then kill -KILL "$pid" 2>/dev/null || true; fi
  fi
  rm -f "$dir/pid" "$dir/display"
}

start() {
  command -v Xvfb >/dev/null || { echo "xvfb-fixture: Xvfb is not installed (apt-get install xvfb)" >&2; exit 1; }
  command -v xdpyinfo >/dev/null || { echo "xvfb-fixture: xdpyinfo is not installed (apt-get install x11-utils)" >&2; exit 1; }
  mkdir -p "$dir"
  stop  # a server left by an interrupted run of this state directory
  local n pid
  for n in $(seq "${ZEL_XVFB_FIRST:-64}" "${ZEL_XVFB_LAST:-511}"); do
    if [ -e "/tmp/.X11-unix/X$n" ] || [ -e "/tmp/.X$n-lock" ]; then continue; fi
    # Standard streams go to a file: the caller (ctest) must not wait for the server's end of its pipes.
    Xvfb ":$n" -nolisten tcp -screen 0 1280x1024x24 -noreset ${ZEL_XVFB_ARGS:-} </dev/null >"$dir/xvfb.log" 2>&1 &
    pid=$!
    for _ in $(seq 1 100); do
      is_xvfb "$pid" || break  # the number was taken meanwhile, or the server failed: try the next one
      if xdpyinfo -display ":$n" >/dev/null 2>&1; then
        echo "$pid" >"$dir/pid"
        echo ":$n" >"$dir/display.new"
        mv "$dir/display.new" "$dir/display"
        echo ":$n"
        return 0
      fi
      sleep 0.1
    done
    if is_xvfb "$pid"; then kill -KILL "$pid" 2>/dev/null || true; fi
    wait "$pid" 2>/dev/null || true
  done
  echo "xvfb-fixture: no display could be started; see $dir/xvfb.log" >&2
  exit 1
}

case "$command" in
  start) start ;;
  stop) stop ;;
  *) usage ;;
esac
