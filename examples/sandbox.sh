# Sourced by the demo and the desktop sample's launcher: starts tessra-sandbox in the
# background and stops it, bounded in time. Needs: $who (the caller's name for messages).

sandbox_pid=""

# require_built BIN COMMAND TOOL...: stops unless every tool is built in BIN.
require_built() {
  local bin="$1" command="$2"
  shift 2
  for tool in "$@"; do
    if [ ! -x "$bin/$tool" ]; then
      echo "$who: $bin/$tool is not built; run $command" >&2
      exit 1
    fi
  done
}

# start_sandbox BIN STATE_DIR LOG_DIR: starts it, waits until it is ready, exports its hosts.
start_sandbox() {
  "$1/tessra-sandbox" --state "$2" >"$3/sandbox.log" 2>"$3/sandbox.err" &
  sandbox_pid=$!
  for _ in $(seq 300); do
    grep -q '^# ready' "$3/sandbox.log" 2>/dev/null && break
    if ! kill -0 "$sandbox_pid" 2>/dev/null; then
      echo "$who: tessra-sandbox did not start:" >&2
      cat "$3/sandbox.err" >&2
      exit 1
    fi
    sleep 0.1
  done
  if ! grep -q '^# ready' "$3/sandbox.log"; then
    echo "$who: tessra-sandbox was not ready within 30 s" >&2
    exit 1
  fi
  eval "$(grep '^export ' "$3/sandbox.log")"
}

stop_sandbox() {
  [ -n "$sandbox_pid" ] || return 0
  kill -TERM "$sandbox_pid" 2>/dev/null || true
  # Bounded: a sandbox that does not stop within 10 s is killed.
  for _ in $(seq 100); do
    kill -0 "$sandbox_pid" 2>/dev/null || break
    # An ended sandbox stays a zombie until the wait below reaps it.
    state=$(sed -n 's/^[0-9]* ([^)]*) \(.\).*/\1/p' "/proc/$sandbox_pid/stat" 2>/dev/null || true)
    [ "$state" = Z ] && break
    sleep 0.1
  done
  kill -KILL "$sandbox_pid" 2>/dev/null || true
  wait "$sandbox_pid" 2>/dev/null || true
  sandbox_pid=""
}
