#!/usr/bin/env bash
# Runs the demo through the FreeTDS driver: the TDS test server serves a
# database file whose tables were made from the SQLite schemas, and
# DA_DEMO_SERVER points the demo at it. TDSVER picks the protocol.
#   demo_over_tds.sh <tds_test_server> <dataAccessDemo> <schema folder> <work folder>
set -euo pipefail
server_bin=$1 demo_bin=$2 schemas=$3 work=$4
rm -rf "$work"
mkdir -p "$work/home"
for s in replication_queue file_catalogue safe_copies demo; do
  f="$schemas/$s.sqlite.sql"
  [ -f "$f" ] || f="$schemas/${s}_sqlite.sql"
  sqlite3 "$work/server.db" < "$f"
done
# The observation-condition databases are sibling files of the server's.
for s in observation_repository:obrep2 ambient_conditions:ambient ar_system:arsystem; do
  sqlite3 "$work/${s#*:}.db" < "$schemas/${s%%:*}.sqlite.sql"
done
# The server lives as long as its standard input stays open.
coproc SERVER { exec "$server_bin" "$work/server.db"; }
trap 'exec {SERVER[1]}>&-; wait' EXIT
read -r -t 10 address <&"${SERVER[0]}"
echo "TDS test server at $address (TDSVER=${TDSVER:-auto})"
HOME="$work/home" DA_DEMO_SERVER="$address" timeout 120 "$demo_bin" "$work"
