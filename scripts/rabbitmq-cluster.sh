#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# A three-node RabbitMQ cluster with STOMP on loopback, for the field tests
# (tests/integration/test_ClusterLong.cpp, scripts/field-soak.sh).
#
#   scripts/rabbitmq-cluster.sh start | stop | status
#   scripts/rabbitmq-cluster.sh kill NODE | restart NODE    (NODE: 1, 2 or 3)
#   scripts/rabbitmq-cluster.sh ctl [NODE] ARGS...          (rabbitmqctl, default node 1)
#   scripts/rabbitmq-cluster.sh port NODE | node-of-port PORT
#
# Node N (tavren-cN@localhost) runs as user rabbitmq, bound to 127.0.0.1
# only: STOMP on 61640+N, AMQP on 5690+N, the Erlang distribution on
# 25700+N, all three registered with one epmd of their own on 4380. None of
# these meets the shared single broker of scripts/rabbitmq.sh (61623, 5682,
# 25682, 4379). Their files live in $TAVREN_BROKER_DIR/cluster/cN, with one
# Erlang cookie for all in $TAVREN_BROKER_DIR/cluster. "start" on a cluster
# none of whose nodes runs begins from empty data folders: node 1 first,
# then 2 and 3, which join it (classic peer discovery); it returns once every
# node answers a STOMP CONNECT and "rabbitmqctl cluster_status" counts three
# running nodes. It also makes the virtual host "tavren-field" whose default
# queue type is quorum (every queue declared in it is a quorum queue) and
# lets guest use it. "kill NODE" ends that node's Erlang VM with SIGKILL (a
# crash, not a shutdown): only a VM this script started, found through the
# pid file it wrote. "restart NODE" starts a node that is down again (it
# rejoins the cluster from its data) and returns once it answers and the
# cluster counts three running nodes. "stop" ends exactly what "start"
# started. Needs root and Debian's rabbitmq-server (scripts/install-brokers.sh).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/brokers/common.sh"

cluster_dir=$TAVREN_BROKER_DIR/cluster
epmd_port=4380
epmd_pidfile=$cluster_dir/epmd.pid
vhost=tavren-field
as_rabbitmq=(setpriv --reuid=rabbitmq --regid=rabbitmq --init-groups --)
nodes=(1 2 3)

stomp_port_of() { echo $((61640 + $1)); }
node_name() { echo "tavren-c$1@localhost"; }
node_dir() { echo "$cluster_dir/c$1"; }
node_pidfile() { echo "$(node_dir "$1")/rabbitmq.pid"; }
node_log() { echo "$(node_dir "$1")/log/console.log"; }

check_node() {
  case ${1:-} in 1 | 2 | 3) ;; *) echo "$0: NODE is 1, 2 or 3, not '${1:-}'" >&2; exit 2 ;; esac
}

# The cookie the nodes and rabbitmqctl share: HOME is the cluster folder.
prepare_cluster() {
  mkdir -p "$cluster_dir"
  if [ ! -s "$cluster_dir/.erlang.cookie" ]; then
    head -c 24 /dev/urandom | od -An -tx1 | tr -d ' \n' > "$cluster_dir/.erlang.cookie"
  fi
  chown rabbitmq:rabbitmq "$cluster_dir" "$cluster_dir/.erlang.cookie"
  chmod 400 "$cluster_dir/.erlang.cookie"
}

# A node's configuration; its data folder is emptied first when fresh=1.
prepare_node() {
  local n=$1 fresh=$2 dir
  dir=$(node_dir "$n")
  [ "$fresh" = 1 ] && rm -rf "$dir"
  mkdir -p "$dir/log" "$dir/mnesia"
  echo "[rabbitmq_stomp]." > "$dir/enabled_plugins"
  cat > "$dir/rabbitmq.conf" <<CONF
listeners.tcp.1 = 127.0.0.1:$((5690 + n))
stomp.listeners.tcp.1 = 127.0.0.1:$(stomp_port_of "$n")
stomp.default_user = guest
stomp.default_pass = guest
loopback_users = none
cluster_formation.peer_discovery_backend = classic_config
cluster_formation.classic_config.nodes.1 = $(node_name 1)
cluster_formation.classic_config.nodes.2 = $(node_name 2)
cluster_formation.classic_config.nodes.3 = $(node_name 3)
cluster_partition_handling = pause_minority
CONF
  chown -R rabbitmq:rabbitmq "$dir"
}

# What node $1's server and rabbitmqctl read from their environment.
node_env() {
  rabbitmq_server_env "$(node_dir "$1")" "$(node_name "$1")" $((5690 + $1)) $((25700 + $1)) "$epmd_port"
  export HOME=$cluster_dir
}

start_epmd() {
  running_pid "$epmd_pidfile" >/dev/null && return 0
  ERL_EPMD_ADDRESS=127.0.0.1 "${as_rabbitmq[@]}" epmd -address 127.0.0.1 -port "$epmd_port" \
    > "$cluster_dir/epmd.log" 2>&1 &
  write_pidfile "$epmd_pidfile" $!
  sleep 0.5
}

# Starts node $1 in the background (a subshell keeps the environments apart).
launch_node() {
  local n=$1 pid
  (
    node_env "$n"
    exec "${as_rabbitmq[@]}" /usr/lib/rabbitmq/bin/rabbitmq-server > "$(node_log "$n")" 2>&1
  ) &
  pid=$!
  write_pidfile "$(node_pidfile "$n")" "$pid"
  log "started node $n ($(node_name "$n"), pid $pid), STOMP on 127.0.0.1:$(stomp_port_of "$n")"
}

ctl_node() {
  local n=$1
  shift
  (
    node_env "$n"
    "${as_rabbitmq[@]}" env HOME="$cluster_dir" /usr/lib/rabbitmq/bin/rabbitmqctl -n "$RABBITMQ_NODENAME" "$@"
  )
}

# The number of running nodes node $1 sees in the cluster.
running_nodes() {
  ctl_node "$1" cluster_status --formatter json 2>/dev/null |
    python3 -c 'import json,sys; print(len(json.load(sys.stdin).get("running_nodes", [])))' 2>/dev/null || echo 0
}

# Waits up to $1 seconds for every node to answer and the cluster to count three.
wait_for_cluster() {
  local seconds=$1 start=$SECONDS n pid
  for n in "${nodes[@]}"; do
    pid=$(running_pid "$(node_pidfile "$n")") || { log "node $n does not run"; return 1; }
    wait_until_answers "$(stomp_port_of "$n")" "$seconds" "$pid" "$(node_log "$n")"
  done
  until [ "$(running_nodes 1)" = 3 ]; do
    if [ $((SECONDS - start)) -ge "$seconds" ]; then
      log "the cluster does not count three running nodes after ${seconds}s:"
      ctl_node 1 cluster_status >&2 || true
      return 1
    fi
    sleep 1
  done
  log "three nodes running in one cluster after $((SECONDS - start))s"
}

start() {
  command -v rabbitmq-server >/dev/null || { log "rabbitmq-server is not installed; run scripts/install-brokers.sh"; exit 1; }
  local n any=0
  for n in "${nodes[@]}"; do running_pid "$(node_pidfile "$n")" >/dev/null && any=1; done
  prepare_cluster
  start_epmd
  if [ $any = 0 ]; then
    for n in "${nodes[@]}"; do prepare_node "$n" 1; done
    launch_node 1
    wait_until_answers "$(stomp_port_of 1)" 90 "$(running_pid "$(node_pidfile 1)")" "$(node_log 1)"
    launch_node 2
    launch_node 3
  else
    for n in "${nodes[@]}"; do
      running_pid "$(node_pidfile "$n")" >/dev/null || { prepare_node "$n" 0; launch_node "$n"; }
    done
  fi
  wait_for_cluster 120
  if ! ctl_node 1 list_vhosts name 2>/dev/null | grep -x "$vhost" >/dev/null; then
    ctl_node 1 add_vhost "$vhost" --default-queue-type quorum >/dev/null
    ctl_node 1 set_permissions -p "$vhost" guest ".*" ".*" ".*" >/dev/null
    log "virtual host $vhost made, its default queue type quorum"
  fi
}

stop() {
  local n
  for n in 3 2 1; do stop_pidfile "$(node_pidfile "$n")" 30; done
  stop_pidfile "$epmd_pidfile" 5
  log "stopped"
}

# The Erlang VM of node $1: the child of the pid "start" wrote, as named in
# the server's own pid file.
beam_pid() {
  local n=$1 parent beam
  parent=$(running_pid "$(node_pidfile "$n")") || return 1
  beam=$(cat "$(node_dir "$n")/server.pid" 2>/dev/null) || return 1
  [ "$(ps -o ppid= -p "$beam" 2>/dev/null | tr -d ' ')" = "$parent" ] && echo "$beam"
}

kill_node() {
  local n=$1 beam
  check_node "$n"
  beam=$(beam_pid "$n") || { log "node $n does not run"; return 1; }
  kill -KILL "$beam"
  for _ in $(seq 100); do alive "$beam" || break; sleep 0.1; done
  stop_pidfile "$(node_pidfile "$n")" 5
  log "node $n killed (SIGKILL to pid $beam)"
}

restart_node() {
  local n=$1
  check_node "$n"
  if ! running_pid "$(node_pidfile "$n")" >/dev/null; then
    prepare_cluster
    start_epmd
    prepare_node "$n" 0
    launch_node "$n"
  fi
  wait_for_cluster 120
}

status() {
  local n pid down=0
  for n in "${nodes[@]}"; do
    if pid=$(running_pid "$(node_pidfile "$n")") && stomp_answers "$(stomp_port_of "$n")"; then
      echo "node $n ($(node_name "$n")): running (pid $pid), STOMP on 127.0.0.1:$(stomp_port_of "$n")"
    else
      echo "node $n ($(node_name "$n")): not running"
      down=1
    fi
  done
  if [ $down = 0 ]; then
    echo "cluster: $(running_nodes 1) running nodes"
  fi
  [ $down = 0 ] || exit 3
}

case ${1:-} in
  start) start ;;
  stop) stop ;;
  status) status ;;
  kill) kill_node "${2:-}" ;;
  restart) restart_node "${2:-}" ;;
  port) check_node "${2:-}"; stomp_port_of "$2" ;;
  node-of-port) echo $((${2:?PORT} - 61640)) ;;
  ctl)
    shift
    case ${1:-} in 1 | 2 | 3) n=$1; shift ;; *) n=1 ;; esac
    ctl_node "$n" "$@" ;;
  *) echo "usage: $0 start|stop|status|kill NODE|restart NODE|ctl [NODE] ARGS...|port NODE" >&2; exit 2 ;;
esac
