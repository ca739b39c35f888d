#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Sourced by demo.sh, test.sh and .ci/run: installs the Debian packages a build needs that this
# machine lacks (apt-get when root), or prints the exact command and stops.
# usage: kestrel_need_packages <script name> <package>...
kestrel_missing_packages() {
  local pkg missing=()
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
  done
  echo "${missing[@]}"
}

kestrel_need_packages() {
  local script=$1
  shift
  local missing
  missing=$(kestrel_missing_packages "$@")
  [ -z "$missing" ] && return 0
  if ! command -v apt-get >/dev/null; then
    echo "$script: missing packages: $missing (install them with your package manager)" >&2
    exit 1
  fi
  if [ "$(id -u)" -ne 0 ]; then
    echo "$script: missing packages; install them with:" >&2
    echo "  sudo apt-get install -y --no-install-recommends $missing" >&2
    exit 1
  fi
  echo "$script: installing $missing ..." >&2
  export DEBIAN_FRONTEND=noninteractive
  # shellcheck disable=SC2086
  { apt-get update && apt-get install -y --no-install-recommends $missing; } >&2
}

# What the library and the host tool build from.
KESTREL_BUILD_PACKAGES=(cmake g++ make pkg-config libcli11-dev nlohmann-json3-dev zlib1g-dev)
# What the tests add.
KESTREL_TEST_PACKAGES=(libgtest-dev libbenchmark-dev clang-format git)
# What scripts/fuzz.sh and scripts/arm64.sh add; each skips with one line when these are missing
# and cannot be installed.
KESTREL_FUZZ_PACKAGES=(clang libclang-rt-14-dev)
KESTREL_ARM64_PACKAGES=(g++-aarch64-linux-gnu qemu-user)

# The Python module and its tests (built for Debian's /usr/bin/python3).
KESTREL_PYTHON_PACKAGES=(python3-dev pybind11-dev python3-numpy python3-matplotlib python3-pytest)
