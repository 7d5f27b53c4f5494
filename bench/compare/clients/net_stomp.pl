#!/usr/bin/perl
# SPDX-License-Identifier: Apache-2.0
# Net::Stomp (Debian's libnet-stomp-perl) in libtavren's client comparison.
#
#   net_stomp.pl MODE HOST PORT VERSION QUEUE N [EXTRA]
#
# Same modes and output as bench/compare/floor_client.cpp: send, receive,
# roundtrip, idle. Net::Stomp is synchronous: one loop receives a frame and
# ACKs it. TCP_NODELAY is set on its socket after connecting, as every client
# of the comparison runs without Nagle's delay.
use strict;
use warnings;
use IO::Select;
use Net::Stomp;
use Socket qw(IPPROTO_TCP TCP_NODELAY);
use Time::HiRes qw(clock_gettime CLOCK_MONOTONIC);

$| = 1;
my $BODY = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789abcdefghijklmnopqrstuvwxyzAB";
my $TIMEOUT = $ENV{BENCH_CLIENT_TIMEOUT} // 600;

sub now { clock_gettime(CLOCK_MONOTONIC) }

my ($mode, $host, $port, $version, $queue, $n, $extra) = @ARGV;
die "usage: $0 MODE HOST PORT VERSION QUEUE N [EXTRA]\n" unless defined $n;

my $stomp = Net::Stomp->new({ hostname => $host, port => $port, timeout => 5 });
my $connected = $stomp->connect({ login => 'guest', passcode => 'guest',
                                  'accept-version' => $version, host => '/' });
die "no CONNECTED\n" unless $connected && $connected->command eq 'CONNECTED';
$stomp->socket->setsockopt(IPPROTO_TCP, TCP_NODELAY, 1);
my $dest = "/queue/$queue";
my $ackmode = $version eq '1.0' ? 'client' : 'client-individual';
my $deadline = now() + $TIMEOUT;

sub ack_frame {
    my ($frame) = @_;
    if ($version eq '1.2') {
        $stomp->ack({ frame => $frame, id => $frame->headers->{ack} });
    } elsif ($version eq '1.1') {
        $stomp->ack({ frame => $frame, subscription => $frame->headers->{subscription} });
    } else {
        $stomp->ack({ frame => $frame });
    }
}

sub wait_receipt {
    my ($id) = @_;
    while (now() < $deadline) {
        my $frame = $stomp->receive_frame({ timeout => 1 }) or next;
        return 1 if $frame->command eq 'RECEIPT' && $frame->headers->{'receipt-id'} eq $id;
        warn "ERROR frame: " . ($frame->headers->{message} // '') . "\n" if $frame->command eq 'ERROR';
    }
    return 0;
}

sub wait_stdin { IO::Select->new(\*STDIN)->can_read($TIMEOUT) }

if ($mode eq 'send') {
    my $t0 = now();
    $stomp->send({ destination => $dest, body => $BODY }) for 1 .. $n;
    # The end marker of every client: a subscription with a receipt, answered
    # once the broker has handled every frame before it.
    $stomp->subscribe({ destination => "$dest-ctl", ack => 'auto', id => 'ctl', receipt => 'last' });
    wait_receipt('last');
    my $t1 = now();
    $stomp->disconnect;
    printf "RESULT {\"t0\": %.6f, \"t1\": %.6f, \"n\": %d, \"version\": \"%s\"}\n", $t0, $t1, $n, $version;
} elsif ($mode eq 'receive') {
    my ($messages, $unique, $dups, $noseq) = (0, 0, 0, 0);
    my $seen = "\0" x ($n + 2);
    my $t0 = now();
    $stomp->subscribe({ destination => $dest, ack => $ackmode, id => '0' });
    my $input = IO::Select->new(\*STDIN);
    while ($unique < $n && now() < $deadline) {
        my $frame = $stomp->receive_frame({ timeout => 1 });
        unless ($frame) {
            last if $input->can_read(0); # the driver gave up waiting
            next;
        }
        if ($frame->command ne 'MESSAGE') {
            warn "ERROR frame: " . ($frame->headers->{message} // '') . "\n" if $frame->command eq 'ERROR';
            next;
        }
        ack_frame($frame);
        $messages++;
        my $seq = $frame->headers->{'bench-seq'} // 0;
        if ($seq <= 0 || $seq > $n) { $noseq++ }
        elsif (vec($seen, $seq, 8)) { $dups++ }
        else { vec($seen, $seq, 8) = 1; $unique++ }
    }
    if ($unique >= $n) {
        printf "GOT %.6f\n", now();
        wait_stdin();
    } else {
        warn "gave up after the client time-out\n";
    }
    $stomp->disconnect;
    printf "RESULT {\"t0\": %.6f, \"got\": %d, \"unique\": %d, \"dups\": %d, \"gaps\": %d, \"noseq\": %d, \"version\": \"%s\"}\n",
        $t0, $messages, $unique, $dups, $n - $unique, $noseq, $version;
} elsif ($mode eq 'roundtrip') {
    $stomp->subscribe({ destination => $dest, ack => $ackmode, id => '0', receipt => 'sub' });
    wait_receipt('sub');
    my @lat;
    for my $i (1 .. $n) {
        my $t = now();
        $stomp->send({ destination => $dest, body => $BODY });
        my $frame;
        while (now() < $deadline) {
            $frame = $stomp->receive_frame({ timeout => 1 }) or next;
            last if $frame->command eq 'MESSAGE';
        }
        last unless $frame && $frame->command eq 'MESSAGE';
        push @lat, (now() - $t) * 1e6;
        ack_frame($frame);
    }
    $stomp->disconnect;
    printf "RESULT {\"lat_us\": [%s], \"version\": \"%s\"}\n", join(',', map { sprintf '%.1f', $_ } @lat), $version;
} elsif ($mode eq 'idle') {
    $stomp->subscribe({ destination => $dest, ack => $ackmode, id => '0', receipt => 'sub' });
    wait_receipt('sub');
    print "READY\n";
    wait_stdin();
    $stomp->disconnect;
    printf "RESULT {\"version\": \"%s\"}\n", $version;
} else {
    die "unknown mode $mode\n";
}
