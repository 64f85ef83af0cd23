#!/usr/bin/env bash
# Runs the demo in a fresh work folder under the build folder, with a private
# HOME there so that it never touches the user's own parameters file.
set -euo pipefail
build=${1:-build/default}
work="$build/demo-work"
rm -rf "$work"
mkdir -p "$work/home"
export HOME="$(cd "$work/home" && pwd)"
exec "$build/examples/dataAccessDemo" "$(cd "$work" && pwd)"
