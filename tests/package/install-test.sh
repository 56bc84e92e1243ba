#!/usr/bin/env bash
# cmake --install into a temporary prefix; the example host builds against it
# and indexes a small tree.
#   install-test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 src=$2
work=$(mktemp -d -t olvane-install-XXXXXX)
trap 'rm -rf "$work"' EXIT
source "$src/tests/package/host-check.sh"

cmake --install "$build" --prefix "$work/prefix" >"$work/install.log" || fail "cmake --install"
host_check "$work/prefix" "$src" "$work"
echo "install test: 1 passed, 0 failed"
