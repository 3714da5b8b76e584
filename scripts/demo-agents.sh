#!/usr/bin/env bash
# Three agents on loopback addresses of their own, talking mutual TLS with certificates of a
# throwaway authority made for this run. A (127.0.0.1) publishes its interfaces and routes;
# B (127.0.0.2) and C (127.0.0.3) mirror them through the module, B with a conflicting pair of
# requests. An agent without a certificate is refused. A hangs (SIGSTOP) and continues, and its
# mirrors resume; then it is killed and restarted with changed state, and both converge. B
# pushes a configuration of its own to A with a write-sync. Each agent reads its commands from a
# FIFO; every step waits for the agent's answer, so the output reads in the order of the story.
# Usage: demo-agents.sh [path to q7agent] [port]
set -euo pipefail

AGENT=${1:-build/host/q7agent}
PORT=${2:-47001}
A=127.0.0.1 B=127.0.0.2 C=127.0.0.3 D=127.0.0.4
ROOT=$(mktemp -d)
declare -A PID FD SHOWN ADDR=([A]=$A [B]=$B [C]=$C [D]=$D)

stop_all() {
  for name in "${!PID[@]}"; do kill -9 "${PID[$name]}" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$ROOT"
}
trap stop_all EXIT

# Every agent but D has a certificate of the authority; no key outlives the run.
bash "$(dirname "${BASH_SOURCE[0]}")/make-authority.sh" "$ROOT/tls"
TLS=(--tls-cert "$ROOT/tls/agent.pem" --tls-key "$ROOT/tls/agent.key" --tls-ca "$ROOT/tls/ca.pem")

start() {  # NAME [q7agent options...]
  local name=$1
  shift
  [[ -p $ROOT/$name.in ]] || mkfifo "$ROOT/$name.in"
  "$AGENT" "$@" <"$ROOT/$name.in" >"$ROOT/$name.out" 2>&1 &
  PID[$name]=$!
  exec {fd}>"$ROOT/$name.in"
  FD[$name]=$fd
  SHOWN[$name]=0
}

STEPS=0
# Sends the commands to agent NAME, waits until it has run them all, and prints what it said.
say() {  # NAME COMMAND...
  local name=$1 mark
  shift
  mark="--- step $((++STEPS)) done"
  printf '%s\n' "$@" "echo $mark" >&"${FD[$name]}"
  # echo prints its text after an empty line, as "== TEXT": neither is shown.
  mark="== $mark"
  for ((i = 0; i < 600; i++)); do
    grep -qxF -e "$mark" "$ROOT/$name.out" && break
    kill -0 "${PID[$name]}" 2>/dev/null || { echo "demo: agent $name ended"; cat "$ROOT/$name.out"; exit 1; }
    sleep 0.05
  done
  grep -qxF -e "$mark" "$ROOT/$name.out" || { echo "demo: agent $name did not answer"; exit 1; }
  local lines
  lines=$(wc -l <"$ROOT/$name.out")
  tail -n +"$((SHOWN[$name] + 1))" "$ROOT/$name.out" | head -n "$((lines - SHOWN[$name]))" |
    grep -vxF -e "$mark" -e "" | sed "s/^/[$name ${ADDR[$name]}] /"
  SHOWN[$name]=$lines
}

heading() { printf '\n=== %s\n' "$*"; }

connections() {  # what ss shows of the connections to A's port
  if command -v ss >/dev/null; then
    echo "[ss] connections to A's port $PORT: $(ss -tnH state established "( dport = :$PORT )" | wc -l)"
  fi
}

REMOTE=$A:$PORT
IFACES=/q7/remote/$REMOTE/ifaces/syncAttribute

heading "A publishes its interfaces and routes on $A:$PORT, to peers with a certificate of the authority"
start A "${TLS[@]}"
say A "listen $A $PORT" "publish /sys/state/interfaces" "set /sys/state/interfaces eth0 up" \
  "set /sys/state/interfaces eth1 down" "publish /sys/state/routes" "set /sys/state/routes default 'via eth0'"

heading "B subscribes A's interfaces and routes; two requests for the routes conflict and hold each other back"
start B "${TLS[@]}"
start C "${TLS[@]}"
say B "listen $B $PORT" "handler add ifaces" "handler add routes" \
  "subscribe $A $PORT /sys/state/interfaces ifaces" \
  "subscribe $A $PORT /sys/state/routes routes" \
  "subscribe $A $PORT /sys/state/routes routes-reliable --flags RELIABLE"
heading "B releases the conflicting request: the routes go through, and both mirrors converge"
say B "release 3" "wait status $REMOTE/sys/state/interfaces inSync" "wait status $REMOTE/sys/state/routes inSync" \
  "get $IFACES"

heading "C mirrors the interfaces too; B and C share nothing but A"
say C "listen $C $PORT" "handler add ifaces" "subscribe $A $PORT /sys/state/interfaces ifaces" \
  "wait status $REMOTE/sys/state/interfaces inSync"
connections

heading "A changes its interfaces: the handlers of B and C hear of each change"
say A "set /sys/state/interfaces eth1 up" "delete /sys/state/interfaces eth0"
say B "wait absent $IFACES eth0" "wait entry $IFACES eth1 up"
say C "wait absent $IFACES eth0" "wait entry $IFACES eth1 up"

heading "D has no certificate: A refuses it at the handshake, and D says why"
start D
say D "subscribe $A $PORT /sys/state/interfaces ifaces" \
  "wait status $REMOTE/sys/state/interfaces connecting 'mutual TLS only'"
printf 'quit\n' >&"${FD[D]}"
wait "${PID[D]}" 2>/dev/null || true
unset "PID[D]"

heading "B pushes a configuration to A with a write-sync; A receives it below its writeSync directory"
CONFIG=/q7/remote/$REMOTE/config/syncAttribute
say B "writesync $A $PORT config" "set $CONFIG mtu 9000" "set $CONFIG speed 10G" \
  "wait status $REMOTE/q7/writeSync/config/syncAttribute inSync"
say A "wait entry /q7/writeSync/config/syncAttribute speed 10G" "get /q7/writeSync/config/syncAttribute" \
  "show dumpStateQ7SyncService"

heading "A hangs (SIGSTOP): within 4 s B and C hear nothing from it and say so"
kill -STOP "${PID[A]}"
say B "wait status $REMOTE/sys/state/interfaces connecting 'nothing heard'" "statuses"
say C "wait status $REMOTE/sys/state/interfaces connecting 'nothing heard'"

heading "A continues: B and C resume from where their streams stopped, and follow its changes"
kill -CONT "${PID[A]}"
say B "wait status $REMOTE/sys/state/interfaces inSync" "statuses"
say C "wait status $REMOTE/sys/state/interfaces inSync"
say A "set /sys/state/interfaces eth0 down"
say B "wait entry $IFACES eth0 down"
say C "wait entry $IFACES eth0 down"

heading "A is killed (kill -9): B and C say so, and keep trying with backoff"
kill -9 "${PID[A]}"
wait "${PID[A]}" 2>/dev/null || true
say B "wait status $REMOTE/sys/state/interfaces connecting" "statuses"
say C "wait status $REMOTE/sys/state/interfaces connecting" "wait seconds 1" "statuses"

heading "A restarts with other state: lo is new, eth1 went; B pushes its configuration to it again"
start A "${TLS[@]}"
say A "listen $A $PORT" "publish /sys/state/interfaces" "set /sys/state/interfaces eth0 down" \
  "set /sys/state/interfaces lo up" "publish /sys/state/routes" "set /sys/state/routes default 'via eth0'"

heading "B and C reconnect and converge: what went meanwhile is deleted"
say B "wait status $REMOTE/sys/state/interfaces inSync" "wait status $REMOTE/sys/state/routes inSync" "statuses" \
  "get $IFACES"
say C "wait status $REMOTE/sys/state/interfaces inSync" "get $IFACES"

heading "B's module state with its subscriptions in force"
say B "show dumpStateQ7SyncModule"

heading "B releases everything: containers withdrawn, unsubscribed, and its connection to A closed"
say B "release 1" "release 2" "release 4" "show dumpStateQ7SyncModule"
say C "release 1"
for ((i = 0; i < 40; i++)); do
  [[ $(ss -tnH state established "( dport = :$PORT )" 2>/dev/null | wc -l) == 0 ]] && break
  sleep 0.05
done
connections

for name in A B C; do printf 'quit\n' >&"${FD[$name]}"; done
for name in A B C; do wait "${PID[$name]}" || true; done
echo
echo "demo: three agents mirrored, lost and recovered their publisher, and let go of it"
