# SPDX-License-Identifier: Apache-2.0
# Shared by the broker scripts: where a broker's files live, how to tell that
# its STOMP port answers, and how to stop exactly the process that was started.
# Sourced, not run.

# Every broker keeps its configuration, data, log and pid file in one folder
# of its own below this one, so starting one never touches the package's
# own instance and a second start finds the first.
TAVREN_BROKER_DIR=${TAVREN_BROKER_DIR:-/var/tmp/tavren-brokers}
# The test CA, the brokers' and a client's certificates and ActiveMQ's
# stores (scripts/brokers/tls-certs.sh makes them), and the stores' password.
TAVREN_TLS_DIR=$TAVREN_BROKER_DIR/tls
TAVREN_TLS_STORE_PASSWORD=tavren-test

log() { echo "[$(basename "$0")] $*"; }

# Everything a RabbitMQ server (and its rabbitmqctl) reads from its
# environment, so that it uses folder $1 and loopback ports only: node name
# $2, AMQP port $3, Erlang distribution port $4, epmd port $5. HOME (where
# the Erlang cookie lives) is $1 too unless the caller sets it after.
rabbitmq_server_env() {
  local dir=$1
  export HOME=$dir
  export RABBITMQ_NODENAME=$2
  export RABBITMQ_NODE_IP_ADDRESS=127.0.0.1
  export RABBITMQ_NODE_PORT=$3
  export RABBITMQ_DIST_PORT=$4
  export ERL_EPMD_ADDRESS=127.0.0.1
  export ERL_EPMD_PORT=$5
  export RABBITMQ_CONFIG_FILE=$dir/rabbitmq.conf
  export RABBITMQ_ENABLED_PLUGINS_FILE=$dir/enabled_plugins
  export RABBITMQ_MNESIA_BASE=$dir/mnesia
  export RABBITMQ_LOG_BASE=$dir/log
  export RABBITMQ_PID_FILE=$dir/server.pid
  export RABBITMQ_LOGS=-
  # The Erlang distribution listens on every interface unless told otherwise.
  export RABBITMQ_SERVER_ADDITIONAL_ERL_ARGS="-kernel inet_dist_use_interface {127,0,0,1}"
}

# True when a STOMP CONNECT on 127.0.0.1:$1 is answered with CONNECTED within
# two seconds. An open port alone is not enough: both brokers accept TCP
# connections a while before they can serve a session.
stomp_answers() {
  local port=$1 reply
  reply=$(timeout 3 bash -c '
    exec 3<>"/dev/tcp/127.0.0.1/$0" || exit 1
    printf "CONNECT\naccept-version:1.0,1.1,1.2\nhost:/\nlogin:guest\npasscode:guest\n\n\0" >&3
    IFS= read -r -t 2 line <&3 && printf "%s" "$line"
    printf "DISCONNECT\n\n\0" >&3 2>/dev/null
    exec 3>&-' "$port" 2>/dev/null) || return 1
  [ "${reply%$'\r'}" = "CONNECTED" ]
}

# True when a STOMP CONNECT over TLS on 127.0.0.1:$1 is answered with
# CONNECTED within a few seconds. The client checks the broker's certificate
# (chain to ca.pem, name localhost) and shows the test client certificate,
# as the brokers ask for one.
stomp_tls_answers() {
  local port=$1 reply
  # -quiet keeps s_client reading after its input ends, until the broker
  # closes (it does after DISCONNECT) or the time-out; the second's pause lets
  # CONNECTED arrive first.
  reply=$({ printf 'CONNECT\naccept-version:1.0,1.1,1.2\nhost:/\nlogin:guest\npasscode:guest\n\n\0'
            sleep 1
            printf 'DISCONNECT\n\n\0'; } |
          timeout 4 openssl s_client -quiet -connect "127.0.0.1:$port" -servername localhost \
            -verify_return_error -verify_hostname localhost -CAfile "$TAVREN_TLS_DIR/ca.pem" \
            -cert "$TAVREN_TLS_DIR/client.pem" -key "$TAVREN_TLS_DIR/client.key" 2>/dev/null | head -n 1) || true
  [ "${reply%$'\r'}" = "CONNECTED" ]
}

# True while process $1 runs. A process that has ended but was not reaped yet
# (a zombie: its parent, the shell that started it, is long gone) counts as
# ended, or a stop would wait for it for ever.
alive() {
  local state
  kill -0 "$1" 2>/dev/null || return 1
  state=$(sed -E 's/^.*\) ([A-Za-z]).*$/\1/' "/proc/$1/stat" 2>/dev/null) || return 1
  [ "$state" != Z ]
}

# When process $1 started, in clock ticks after boot (field 22 of its stat).
started_at() {
  sed -E 's/^.*\) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f20
}

# Writes pid $2 to file $1 with its start time, so that a pid the system has
# given to another process since is never taken for the broker.
write_pidfile() {
  echo "$2 $(started_at "$2")" > "$1"
}

# The pid in file $1 when that very process still runs, nothing otherwise.
running_pid() {
  local pid start
  [ -s "$1" ] || return 1
  read -r pid start < "$1"
  alive "$pid" && [ "$(started_at "$pid")" = "$start" ] && echo "$pid"
}

# Waits up to $2 seconds for the broker on port $1 to answer; $3 is the pid
# of the broker, whose end stops the wait at once. $4 is its log, shown when
# it fails. $5 is the check (stomp_answers unless given).
wait_until_answers() {
  local port=$1 seconds=$2 pid=$3 logfile=$4 check=${5:-stomp_answers} start=$SECONDS
  local what=STOMP
  [ "$check" = stomp_tls_answers ] && what="STOMP over TLS"
  while ! "$check" "$port"; do
    if ! alive "$pid"; then
      log "the broker (pid $pid) ended before it answered; the end of $logfile:"
      tail -n 30 "$logfile" >&2 || true
      return 1
    fi
    if [ $((SECONDS - start)) -ge "$seconds" ]; then
      log "no CONNECTED ($what) on 127.0.0.1:$port after ${seconds}s; the end of $logfile:"
      tail -n 30 "$logfile" >&2 || true
      return 1
    fi
    sleep 0.5
  done
  log "$what answers on 127.0.0.1:$port after $((SECONDS - start))s (pid $pid)"
}

# As wait_until_answers, over TLS.
wait_until_tls_answers() { wait_until_answers "$1" "$2" "$3" "$4" stomp_tls_answers; }

# For "start" on a broker that runs already: says so when it has no TLS
# listener on port $1 (started by an older version of its script), but
# leaves it running, since others may be using it.
check_running_tls() {
  stomp_tls_answers "$1" && return 0
  log "the running broker does not answer STOMP over TLS on 127.0.0.1:$1; the TLS tests need \"$0 stop\" and \"$0 start\""
}

# Stops the process whose pid is in file $1 (TERM, then KILL after $2
# seconds) and removes the file. Nothing else is signalled.
stop_pidfile() {
  local file=$1 grace=${2:-30} pid
  if ! pid=$(running_pid "$file"); then
    rm -f "$file"
    return 0
  fi
  kill -TERM "$pid" 2>/dev/null || true
  for _ in $(seq $((grace * 10))); do
    alive "$pid" || break
    sleep 0.1
  done
  if alive "$pid"; then
    log "pid $pid still runs after ${grace}s; killing it"
    kill -KILL "$pid" 2>/dev/null || true
    for _ in $(seq 50); do
      alive "$pid" || break
      sleep 0.1
    done
  fi
  rm -f "$file"
}

# The command line of a broker script: "start" and "stop" call the script's
# own start and stop functions; "status" reads its $pidfile, $stomp_port and
# $tls_port, and says whether each port answers (running: the plain one does).
broker_command() {
  case ${1:-} in
    start) start ;;
    stop) stop ;;
    status)
      local pid
      if pid=$(running_pid "$pidfile") && stomp_answers "$stomp_port"; then
        if stomp_tls_answers "$tls_port"; then
          echo "running (pid $pid), STOMP on 127.0.0.1:$stomp_port, over TLS on 127.0.0.1:$tls_port"
        else
          echo "running (pid $pid), STOMP on 127.0.0.1:$stomp_port, but no STOMP over TLS on 127.0.0.1:$tls_port"
        fi
      else
        echo "not running"; exit 3
      fi ;;
    ctl)
      # The broker's own control tool, for the tests that make queues and
      # virtual hosts (scripts/rabbitmq.sh ctl list_queues name type).
      declare -F ctl >/dev/null || { echo "$0 has no control tool" >&2; exit 2; }
      shift
      ctl "$@" ;;
    *) echo "usage: $0 start|stop|status|ctl ARGS..." >&2; exit 2 ;;
  esac
}
