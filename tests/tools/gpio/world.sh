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
# shellcheck source=tests/support/world.sh
. "$(dirname "$0")/../../support/world.sh"
studio
export ORVEX_RESUBSCRIBE=yes
stdbuf -oL "$bin/app/orvex" -debug >/run/orvex.log 2>&1 &
ip netns exec studio stdbuf -oL "$bin/app/orvex" -debug >/run/studio.orvex.log 2>&1 &
"$@"
