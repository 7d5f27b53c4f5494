#!/usr/bin/ruby
# SPDX-License-Identifier: Apache-2.0
# The Ruby stomp gem (Debian's ruby-stomp) in libtavren's client comparison.
#
#   ruby_stomp.rb MODE HOST PORT VERSION QUEUE N [EXTRA]
#
# Same modes and output as bench/compare/floor_client.cpp: send, receive,
# roundtrip, idle. Uses Stomp::Connection synchronously: one loop receives a
# frame and ACKs it. The gem sets TCP_NODELAY by default (:tcp_nodelay).
require 'stomp'

$stdout.sync = true
BODY = '0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789abcdefghijklmnopqrstuvwxyzAB'
TIMEOUT = (ENV['BENCH_CLIENT_TIMEOUT'] || '600').to_f

def now
  Process.clock_gettime(Process::CLOCK_MONOTONIC)
end

mode, host, port, version, queue, n = ARGV
abort "usage: #{$0} MODE HOST PORT VERSION QUEUE N [EXTRA]" unless n
n = n.to_i
conn = Stomp::Connection.new(
  hosts: [{ login: 'guest', passcode: 'guest', host: host, port: port.to_i }],
  reliable: false, tcp_nodelay: true,
  connect_headers: { 'accept-version' => version, 'host' => '/' }
)
dest = "/queue/#{queue}"
ackmode = version == '1.0' ? 'client' : 'client-individual'
deadline = now + TIMEOUT

ack_frame = lambda do |msg|
  case version
  when '1.2' then conn.ack(msg.headers['ack'])
  when '1.1' then conn.ack(msg.headers['message-id'], subscription: msg.headers['subscription'])
  else conn.ack(msg.headers['message-id'])
  end
end

wait_receipt = lambda do |id|
  while now < deadline
    frame = conn.receive
    next unless frame
    return true if frame.command == 'RECEIPT' && frame.headers['receipt-id'] == id
    warn "ERROR frame: #{frame.headers['message']}" if frame.command == 'ERROR'
  end
  false
end

wait_stdin = -> { IO.select([$stdin], nil, nil, TIMEOUT) }

case mode
when 'send'
  t0 = now
  n.times { conn.publish(dest, BODY) }
  # The end marker of every client: a subscription with a receipt, answered
  # once the broker has handled every frame before it.
  conn.subscribe("#{dest}-ctl", { ack: 'auto', id: 'ctl', receipt: 'last' })
  wait_receipt.call('last')
  t1 = now
  conn.disconnect
  printf("RESULT {\"t0\": %.6f, \"t1\": %.6f, \"n\": %d, \"version\": \"%s\"}\n", t0, t1, n, version)
when 'receive'
  messages = unique = dups = noseq = 0
  seen = Array.new(n + 2, false)
  t0 = now
  conn.subscribe(dest, { ack: ackmode, id: '0' })
  while unique < n && now < deadline
    frame = conn.receive
    next unless frame
    if frame.command != 'MESSAGE'
      warn "ERROR frame: #{frame.headers['message']}" if frame.command == 'ERROR'
      next
    end
    ack_frame.call(frame)
    messages += 1
    seq = (frame.headers['bench-seq'] || '0').to_i
    if seq <= 0 || seq > n then noseq += 1
    elsif seen[seq] then dups += 1
    else
      seen[seq] = true
      unique += 1
    end
  end
  if unique >= n
    printf("GOT %.6f\n", now)
    wait_stdin.call
  else
    warn 'gave up after the client time-out'
  end
  conn.disconnect
  printf("RESULT {\"t0\": %.6f, \"got\": %d, \"unique\": %d, \"dups\": %d, \"gaps\": %d, \"noseq\": %d, \"version\": \"%s\"}\n",
         t0, messages, unique, dups, n - unique, noseq, version)
when 'roundtrip'
  conn.subscribe(dest, { ack: ackmode, id: '0', receipt: 'sub' })
  wait_receipt.call('sub')
  lat = []
  n.times do
    t = now
    conn.publish(dest, BODY)
    frame = nil
    while now < deadline
      frame = conn.receive
      break if frame && frame.command == 'MESSAGE'
    end
    break unless frame && frame.command == 'MESSAGE'
    lat << (now - t) * 1e6
    ack_frame.call(frame)
  end
  conn.disconnect
  printf("RESULT {\"lat_us\": [%s], \"version\": \"%s\"}\n", lat.map { |v| format('%.1f', v) }.join(','), version)
when 'idle'
  conn.subscribe(dest, { ack: ackmode, id: '0', receipt: 'sub' })
  wait_receipt.call('sub')
  puts 'READY'
  wait_stdin.call
  conn.disconnect
  printf("RESULT {\"version\": \"%s\"}\n", version)
else
  abort "unknown mode #{mode}"
end
