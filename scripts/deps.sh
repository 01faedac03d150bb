#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, when
# any is missing.  Safe to run again: it does nothing when all are present.
set -euo pipefail
packages=(cmake g++ make pkg-config libldap-dev libsasl2-dev libicu-dev libsodium-dev
          slapd ldap-utils openssl libgtest-dev libbenchmark-dev groff-base
          python3 python3-pytest clang libclang-rt-14-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "deps: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
# slapd's package may start a system server; the project never uses it.
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
