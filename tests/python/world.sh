#!/usr/bin/env bash
# Runs a command on a host with nothing but loopback, in namespaces that end with it:
#   world.sh COMMAND...
set -euo pipefail
# shellcheck source=tests/support/world.sh
. "$(dirname "$0")/../support/world.sh"
enter "$@"
shift
exec "$@"
