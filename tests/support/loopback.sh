#!/usr/bin/env bash
# Runs a command in a network namespace with a route for multicast:  loopback.sh COMMAND...
set -euo pipefail
# shellcheck source=tests/support/world.sh
. "$(dirname "$0")/world.sh"
enter "$@"
shift
ip link set lo up
ip route add 224.0.0.0/4 dev lo
exec "$@"
