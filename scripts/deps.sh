#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, when
# any is missing.  Safe to run again: it does nothing when all are present.
set -euo pipefail
packages=(cmake g++ make pkg-config libldap-dev libsasl2-dev libicu-dev libsodium-dev
          libgnutls28-dev slapd ldap-utils openssl libgtest-dev libbenchmark-dev groff-base nlohmann-json3-dev
          python3 python3-pytest clang libclang-rt-14-dev
          # the web console, and the headless browser its tests drive
          python3-flask python3-waitress python3-selenium chromium chromium-driver fonts-dejavu-core
          # the peer directories the tests run against: 389 Directory Server,
          # an MIT Kerberos realm for GSSAPI sign-on, and an AD domain controller
          389-ds-base krb5-kdc krb5-user krb5-admin-server libsasl2-modules-gssapi-mit
          samba samba-ad-provision samba-dsdb-modules samba-vfs-modules winbind)
# Arguments replace the list: make bench asks for its own tools this way.
[ $# -gt 0 ] && packages=("$@")
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
# slapd's and 389-ds-base's packages may start system servers; the project
# never uses them (tests start private instances).
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
