#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Starts or stops a RabbitMQ broker with STOMP for libtavren's demo and tests.
#
#   scripts/rabbitmq.sh start | stop | status | ctl ARGS...
#
# The broker runs as user rabbitmq in the background, bound to 127.0.0.1 only:
# STOMP on $TAVREN_RABBITMQ_PORT (61623), STOMP over TLS on
# $TAVREN_RABBITMQ_TLS_PORT (61624), AMQP on 5682, the Erlang distribution on
# 25682 and its own epmd on 4379, so that it neither meets a RabbitMQ the
# machine may run already nor listens beyond loopback. Its files live in
# $TAVREN_BROKER_DIR/rabbitmq. The TLS listener (TLS 1.2 and 1.3) presents
# the test certificate of scripts/brokers/tls-certs.sh and asks every client
# for a certificate signed by the test CA. "start" returns once a STOMP
# CONNECT is answered with CONNECTED on both ports; starting a running broker
# and stopping a stopped one do nothing. "stop" ends exactly the processes "start" started, by the
# pids it wrote. Needs root and Debian's rabbitmq-server (scripts/install-brokers.sh).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/brokers/common.sh"

stomp_port=${TAVREN_RABBITMQ_PORT:-61623}
tls_port=${TAVREN_RABBITMQ_TLS_PORT:-61624}
amqp_port=5682
dist_port=25682
epmd_port=4379
dir=$TAVREN_BROKER_DIR/rabbitmq
pidfile=$dir/rabbitmq.pid
epmd_pidfile=$dir/epmd.pid
logfile=$dir/log/console.log
as_rabbitmq=(setpriv --reuid=rabbitmq --regid=rabbitmq --init-groups --)

prepare() {
  bash "$here/brokers/tls-certs.sh"
  mkdir -p "$dir/log" "$dir/mnesia"
  echo "[rabbitmq_stomp]." > "$dir/enabled_plugins"
  cat > "$dir/rabbitmq.conf" <<CONF
listeners.tcp.1 = 127.0.0.1:$amqp_port
stomp.listeners.tcp.1 = 127.0.0.1:$stomp_port
stomp.default_user = guest
stomp.default_pass = guest
stomp.listeners.ssl.1 = 127.0.0.1:$tls_port
ssl_options.cacertfile = $TAVREN_TLS_DIR/ca.pem
ssl_options.certfile = $TAVREN_TLS_DIR/server.pem
ssl_options.keyfile = $TAVREN_TLS_DIR/server.key
ssl_options.verify = verify_peer
ssl_options.fail_if_no_peer_cert = true
ssl_options.versions.1 = tlsv1.3
ssl_options.versions.2 = tlsv1.2
CONF
  chown -R rabbitmq:rabbitmq "$dir"
}

# Everything the server reads from its environment, so that it uses the
# folder above and loopback ports only.
server_env() { rabbitmq_server_env "$dir" tavren@localhost "$amqp_port" "$dist_port" "$epmd_port"; }

start() {
  if pid=$(running_pid "$pidfile"); then
    wait_until_answers "$stomp_port" 60 "$pid" "$logfile"
    check_running_tls "$tls_port"
    return
  fi
  command -v rabbitmq-server >/dev/null || { log "rabbitmq-server is not installed; run scripts/install-brokers.sh"; exit 1; }
  prepare
  server_env
  if ! running_pid "$epmd_pidfile" >/dev/null; then
    # epmd is started here rather than by the server, so that its pid is known
    # and "stop" can end it too.
    "${as_rabbitmq[@]}" epmd -address 127.0.0.1 -port "$epmd_port" > "$dir/log/epmd.log" 2>&1 &
    write_pidfile "$epmd_pidfile" $!
  fi
  "${as_rabbitmq[@]}" /usr/lib/rabbitmq/bin/rabbitmq-server > "$logfile" 2>&1 &
  local pid=$!
  write_pidfile "$pidfile" "$pid"
  log "started RabbitMQ (pid $pid), STOMP on 127.0.0.1:$stomp_port, over TLS on 127.0.0.1:$tls_port, files in $dir"
  wait_until_answers "$stomp_port" 60 "$pid" "$logfile"
  # The listeners open together; a few seconds cover the TLS one.
  wait_until_tls_answers "$tls_port" 20 "$pid" "$logfile"
}

stop() {
  stop_pidfile "$pidfile" 30
  stop_pidfile "$epmd_pidfile" 5
  log "stopped"
}

# rabbitmqctl against this node, as the user that owns its cookie.
ctl() {
  server_env
  "${as_rabbitmq[@]}" env HOME="$dir" /usr/lib/rabbitmq/bin/rabbitmqctl -n "$RABBITMQ_NODENAME" "$@"
}

broker_command "$@"
