#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Starts or stops an ActiveMQ broker with STOMP for libtavren's tests.
#
#   scripts/activemq.sh start | stop | status
#
# The broker runs the package's activemq.jar as user activemq in the
# background, with an instance folder of its own ($TAVREN_BROKER_DIR/activemq,
# a copy of the package's "main" instance) whose only transports are STOMP on
# 127.0.0.1:$TAVREN_ACTIVEMQ_PORT (61633) and STOMP over TLS on
# 127.0.0.1:$TAVREN_ACTIVEMQ_TLS_PORT (61634). The TLS transport (TLS 1.2 and
# 1.3) presents the test certificate of scripts/brokers/tls-certs.sh from its
# keystore and asks every client for a certificate signed by the test CA.
# Logins are checked: user "guest" with passcode "guest", so that a wrong
# passcode is refused as it is on RabbitMQ. "start" returns once a STOMP
# CONNECT is answered with CONNECTED on both ports (the JVM takes a while;
# up to 90 s are allowed); starting a running broker
# and stopping a stopped one do nothing. "stop" ends exactly the process
# "start" started, by the pid it wrote. Needs root and Debian's activemq
# (scripts/install-brokers.sh).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/brokers/common.sh"

stomp_port=${TAVREN_ACTIVEMQ_PORT:-61633}
tls_port=${TAVREN_ACTIVEMQ_TLS_PORT:-61634}
home=/usr/share/activemq
template=/etc/activemq/instances-available/main
dir=$TAVREN_BROKER_DIR/activemq
pidfile=$dir/activemq.pid
logfile=$dir/console.log

prepare() {
  bash "$here/brokers/tls-certs.sh"
  mkdir -p "$dir/conf" "$dir/data" "$dir/tmp"
  cp "$template/log4j2.properties" "$dir/conf/"
  # The package's instance with its one transport replaced by STOMP and
  # STOMP over TLS on loopback, the TLS transport's key and trusted CA, and a
  # user list, so that credentials are checked. "&amp;" is the XML for the
  # "&" between the URI's options.
  local tls_uri="stomp+ssl://127.0.0.1:$tls_port?needClientAuth=true\&amp;transport.enabledProtocols=TLSv1.3,TLSv1.2"
  sed -e "s|<transportConnector name=\"openwire\"[^>]*/>|<transportConnector name=\"stomp\" uri=\"stomp://127.0.0.1:$stomp_port\"/>\\
            <transportConnector name=\"stomp+ssl\" uri=\"$tls_uri\"/>|" \
      -e "s|<transportConnectors>|<sslContext>\\
            <sslContext keyStore=\"file:$TAVREN_TLS_DIR/broker-keystore.p12\" keyStoreType=\"pkcs12\"\\
                        keyStorePassword=\"$TAVREN_TLS_STORE_PASSWORD\"\\
                        trustStore=\"file:$TAVREN_TLS_DIR/broker-truststore.p12\" trustStoreType=\"pkcs12\"\\
                        trustStorePassword=\"$TAVREN_TLS_STORE_PASSWORD\"/>\\
        </sslContext>\\
        <transportConnectors>|" \
      -e 's|</transportConnectors>|</transportConnectors>\
        <plugins>\
            <simpleAuthenticationPlugin>\
                <users>\
                    <authenticationUser username="guest" password="guest" groups="users"/>\
                </users>\
            </simpleAuthenticationPlugin>\
        </plugins>|' \
      "$template/activemq.xml" > "$dir/conf/activemq.xml"
  grep -q "stomp://127.0.0.1:$stomp_port" "$dir/conf/activemq.xml" \
    || { log "could not put the STOMP transport into $dir/conf/activemq.xml"; exit 1; }
  grep -q "stomp+ssl://127.0.0.1:$tls_port" "$dir/conf/activemq.xml" && grep -q "<sslContext>" "$dir/conf/activemq.xml" \
    || { log "could not put the STOMP over TLS transport into $dir/conf/activemq.xml"; exit 1; }
  chown -R activemq:activemq "$dir"
}

start() {
  if pid=$(running_pid "$pidfile"); then
    wait_until_answers "$stomp_port" 90 "$pid" "$logfile"
    check_running_tls "$tls_port"
    return
  fi
  [ -f "$home/bin/activemq.jar" ] || { log "activemq is not installed; run scripts/install-brokers.sh"; exit 1; }
  prepare
  # The options the package's own start script gives a Java newer than 8.
  cd "$dir"
  setpriv --reuid=activemq --regid=activemq --init-groups -- \
    java -Xms128M -Xmx512M -Djava.awt.headless=true \
      --add-reads=java.xml=java.logging \
      --add-opens java.base/java.security=ALL-UNNAMED \
      --add-opens java.base/java.net=ALL-UNNAMED \
      --add-opens java.base/java.lang=ALL-UNNAMED \
      --add-opens java.base/java.util=ALL-UNNAMED \
      --add-opens java.naming/javax.naming.spi=ALL-UNNAMED \
      --add-opens java.rmi/sun.rmi.transport.tcp=ALL-UNNAMED \
      --add-opens java.base/java.util.concurrent=ALL-UNNAMED \
      --add-opens java.base/java.util.concurrent.atomic=ALL-UNNAMED \
      -Djava.io.tmpdir="$dir/tmp" \
      -Dactivemq.classpath="$dir/conf:$home/lib/" \
      -Dactivemq.home="$home" \
      -Dactivemq.base="$dir" \
      -Dactivemq.conf="$dir/conf" \
      -Dactivemq.data="$dir/data" \
      -jar "$home/bin/activemq.jar" start "xbean:file:$dir/conf/activemq.xml" > "$logfile" 2>&1 &
  local pid=$!
  write_pidfile "$pidfile" "$pid"
  log "started ActiveMQ (pid $pid), STOMP on 127.0.0.1:$stomp_port, over TLS on 127.0.0.1:$tls_port, files in $dir"
  wait_until_answers "$stomp_port" 90 "$pid" "$logfile"
  # The transports start together; a few seconds cover the TLS one.
  wait_until_tls_answers "$tls_port" 20 "$pid" "$logfile"
}

stop() {
  stop_pidfile "$pidfile" 30
  log "stopped"
}

broker_command "$@"
