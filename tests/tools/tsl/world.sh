#!/usr/bin/env bash
# Runs a command beside a device with orvex and its control server, which is another host; both in
# namespaces that end with it:  world.sh BUILD COMMAND...
# In /run: "in" takes lines for the control server; "orvex.pid" contains the daemon's process ID.
set -euo pipefail
# shellcheck source=tests/support/world.sh
. "$(dirname "$0")/../../support/world.sh"
enter "$@"
bin=$2
shift 2
studio
echo 'CFG GPO 1 SRCA=1:2' >/run/studio.conf
mkfifo /run/in
ip netns exec studio "$bin/tools/sim/orvex-sim" /run/studio.conf <>/run/in >/run/sim.log 2>&1 &
await /run/sim.log "listening on"
ip netns exec studio "$bin/app/orvex" -debug >/run/orvex.log 2>&1 &
echo "$!" >/run/orvex.pid
await /run/orvex.log "parse_GPI 1"
"$@"
