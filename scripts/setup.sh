#!/usr/bin/env bash
# Installs the Debian packages that Orvi builds against, when any are missing.
# As root it runs apt-get itself; otherwise it prints the exact command and fails.
set -euo pipefail

packages=(
  build-essential cmake pkg-config gzip
  nlohmann-json3-dev zlib1g-dev libsqlite3-dev libboost1.81-dev libssl-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

line="apt-get install -y --no-install-recommends ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  echo "orvi: missing Debian packages; run as root:" >&2
  echo "  apt-get update && $line" >&2
  exit 1
fi

echo "orvi: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
$line
