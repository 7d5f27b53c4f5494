#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages, installs them, and checks them the way a user
# meets them: a project outside the tree (tests/consumer) built once through
# find_package(tavren) and once through pkg-config on a g++ command line,
# each run against the stand-in broker examples/fake_broker, and the
# installed tavren-send and tavren-listen against the same broker. The
# packages are removed again at the end unless they were installed before.
# Debian 12, as root.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d /tmp/tavren-check-packages.XXXXXX)
start=$SECONDS
installed_here=0
packages=(libtavren1 libtavren-dev tavren-tools)

# shellcheck source=brokers/stand-in.sh
source "$root/scripts/brokers/stand-in.sh"

cleanup() {
  if [ "$installed_here" = 1 ]; then
    echo "== Removing the packages"
    DEBIAN_FRONTEND=noninteractive apt-get remove -y -qq --purge "${packages[@]}" >/dev/null || true
  fi
  stop_stand_in_broker
}
trap cleanup EXIT

fail() { echo "check-packages: $*" >&2; exit 1; }

# Runs a command and checks its exit status.
expect_status() {
  local want=$1; shift
  local got=0
  "$@" >"$work/out" 2>"$work/err" || got=$?
  if [ "$got" != "$want" ]; then
    cat "$work/out" "$work/err" >&2
    fail "'$*' exited with $got, expected $want"
  fi
}

echo "== Building the packages"
BUILD_DIR=$work/build "$root/scripts/package.sh" "$work/debs"

echo "== Installing them"
already=0
dpkg-query -W -f='${Status}' libtavren1 2>/dev/null | grep -q "install ok installed" && already=1
[ "$already" = 1 ] || installed_here=1
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$work"/debs/*.deb >/dev/null
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
for f in /usr/lib/$multiarch/libtavren.so.1 /usr/lib/$multiarch/libtavren.so \
         /usr/include/tavren/tavren.h /usr/include/tavren/Version.h /usr/include/kelvra/SharedPtr.h \
         /usr/lib/$multiarch/cmake/tavren/tavrenConfig.cmake /usr/lib/$multiarch/pkgconfig/tavren.pc \
         /usr/bin/tavren-send /usr/bin/tavren-listen /usr/share/man/man1/tavren-send.1.gz \
         /usr/share/doc/libtavren1/copyright; do
  [ -e "$f" ] || fail "$f is not installed"
done
pkg-config --exists tavren || fail "pkg-config does not know tavren"
echo "pkg-config: tavren $(pkg-config --modversion tavren): $(pkg-config --cflags --libs tavren)"

echo "== Starting the stand-in broker"
start_stand_in_broker

echo "== A consumer through find_package(tavren)"
cmake -S "$root/tests/consumer" -B "$work/consumer-cmake" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/consumer-cmake" >/dev/null
expect_status 0 "$work/consumer-cmake/tavren_consumer" 127.0.0.1 "$port" consumer-cmake
cat "$work/out"
# grep reads all of ldd's output: with -q it could leave early and ldd
# die of SIGPIPE, which pipefail takes for a failure.
ldd "$work/consumer-cmake/tavren_consumer" | grep -E "libtavren.so.1 => (/usr)?/lib/$multiarch/libtavren.so.1 " >/dev/null ||
  fail "the find_package consumer does not use the installed library"

echo "== A consumer through pkg-config"
# shellcheck disable=SC2046 # the flags are words
g++ -std=c++17 -Wall -Wextra "$root/tests/consumer/main.cpp" -o "$work/consumer-pc" $(pkg-config --cflags --libs tavren)
expect_status 0 "$work/consumer-pc" 127.0.0.1 "$port" consumer-pc
cat "$work/out"

echo "== The installed tools"
expect_status 0 tavren-send --help
grep -q "^Usage: tavren-send" "$work/out" || fail "tavren-send --help printed no usage"
expect_status 0 tavren-listen --help
expect_status 2 tavren-send
expect_status 0 tavren-send --port "$port" -H x-check:packages tools-queue "from the installed tavren-send"
printf 'line one\nline two\n' >"$work/lines"
expect_status 0 tavren-send --port "$port" tools-queue <"$work/lines"
expect_status 0 tavren-listen --port "$port" -t 0.5 tools-queue
expect_status 4 tavren-listen --port "$port" -n 1 -t 0.5 tools-queue
# A port nobody listens on: a second broker takes a free one and is ended.
"$work/fake_broker" 0 "$work/closed-port" >/dev/null 2>&1 &
closer=$!
for _ in $(seq 100); do [ -s "$work/closed-port" ] && break; sleep 0.05; done
kill "$closer"; wait "$closer" 2>/dev/null || true
closed=$(cat "$work/closed-port")
expect_status 3 tavren-send --port "$closed" --connect-timeout 1 tools-queue x
grep -q "cannot connect to 127.0.0.1:$closed" "$work/err" || fail "tavren-send did not say it cannot connect"
for line in 'received SEND for /queue/tools-queue: "from the installed tavren-send"' \
            'received SEND for /queue/tools-queue: "line one"' \
            'received SEND for /queue/tools-queue: "line two"' \
            'received SUBSCRIBE for /queue/tools-queue'; do
  grep -qF "broker: $line" "$work/broker.log" || { cat "$work/broker.log"; fail "the broker did not log: $line"; }
done

echo "== Packages checked in $((SECONDS - start)) s"
