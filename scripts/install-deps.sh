#!/usr/bin/env bash
# Installs the Debian packages the build, tests, benchmarks and fuzzers need.
# Idempotent: packages already present are not touched, and apt is only
# consulted when something is missing. Runs as root, or through sudo.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config
  libace-dev freetds-dev libsqlite3-dev sqlite3 libsodium-dev libpq-dev postgresql-15
  libisal-dev libssl-dev nettle-dev zlib1g-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev llvm
  curl python3 time valgrind
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "install-deps: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "install-deps: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
  SUDO="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
