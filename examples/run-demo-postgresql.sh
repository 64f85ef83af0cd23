#!/usr/bin/env bash
# Runs the demo on a throwaway PostgreSQL cluster: started in a temporary
# folder (as user postgres when run as root), given to the demo through
# DA_DEMO_SERVER, stopped and removed afterwards, whatever happens.
set -euo pipefail
build=${1:-build/default}
state="$build/demo-pg-cluster.state"
"$build/tests/da_pg_cluster" start "$state"
trap '"$build/tests/da_pg_cluster" stop "$state"' EXIT
read -r host port <"$state"
export DA_DEMO_SERVER="postgresql:///postgres?host=$host&port=$port&user=postgres"
echo "demo on a throwaway PostgreSQL cluster: $DA_DEMO_SERVER"
bash "$(dirname "$0")/run-demo.sh" "$build"
