#!/usr/bin/env bash
# Runs a command with two boards, on the kernel of scripts/gpiosim: on this one chip sim0, on the board
# in the namespace "studio" chip sim1. Each has a bus, shared with the other, and orvex.
#   scripts/gpiosim world.sh BUILD COMMAND...
# This board is 10.77.0.1, the studio 10.77.0.2.
set -euo pipefail
export bin=$1
shift
mkdir /run/netns
mount -t tmpfs log /var/log
ip netns add studio
ip link add eth0 type veth peer name eth0 netns studio
ip addr add 10.77.0.1/24 dev eth0
ip -n studio addr add 10.77.0.2/24 dev eth0
for host in "" "-n studio"; do
    # shellcheck disable=SC2086
    ip $host link set lo up && ip $host link set eth0 up && ip $host route add 224.0.0.0/4 dev eth0
done
export ORVEX_RESUBSCRIBE=yes
stdbuf -oL "$bin/app/orvex" -debug >/run/orvex.log 2>&1 &
ip netns exec studio stdbuf -oL "$bin/app/orvex" -debug >/run/studio.orvex.log 2>&1 &
"$@"
