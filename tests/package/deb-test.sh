#!/usr/bin/env bash
# cpack -G DEB; apt-get installs libolvane-core-dev and olvane-indexer, whose
# declared dependencies must bring the other packages, into a throwaway copy
# of this machine's system (an overlay of / in a private mount namespace, for
# root); elsewhere they are unpacked with dpkg -x into a prefix. The example host then builds against
# what was installed and indexes a small tree.
#   deb-test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 src=$2
work=$(mktemp -d -t olvane-deb-XXXXXX)
trap 'rm -rf "$work"' EXIT
source "$src/tests/package/host-check.sh"

cpack --config "$build/CPackConfig.cmake" -B "$work/debs" >"$work/cpack.log" 2>&1 ||
    fail "cpack: $(cat "$work/cpack.log")"
debs=("$work"/debs/*.deb)
[ ${#debs[@]} -eq 5 ] || fail "5 packages expected: ${debs[*]}"

can_overlay() {
    [ "$(id -u)" -eq 0 ] && [ -z "${OLVANE_DEB_TEST_NO_CHROOT:-}" ] &&
        grep -qw overlay /proc/filesystems && unshare -m true 2>/dev/null
}

if can_overlay; then
    echo "deb test: apt-get install into an overlay of /"
    # The private namespace ends with the command, and the overlay with it.
    # shellcheck disable=SC2016
    unshare -m --propagation private bash -c '
        set -euo pipefail
        work=$1 src=$2 flags=$3
        mkdir -p "$work/fs" && mount -t tmpfs olvane "$work/fs"
        mkdir "$work/fs/upper" "$work/fs/tmp" "$work/fs/root"
        mount -t overlay overlay -o "lowerdir=/,upperdir=$work/fs/upper,workdir=$work/fs/tmp" \
            "$work/fs/root"
        r=$work/fs/root
        for d in proc dev sys; do mount --rbind "/$d" "$r/$d"; done
        mount -t tmpfs tmp "$r/tmp"
        # The sources at their own path, even when they lie below /tmp.
        mkdir -p "$r$src" && mount --bind "$src" "$r$src"
        mkdir -p "$r/tmp/check" && cp "$work"/debs/*.deb "$r/tmp/check/"
        # Only the two packages a developer asks for: their declared
        # dependencies must bring the other three from a local repository.
        chroot "$r" bash -c "cd /tmp/check && dpkg-scanpackages . /dev/null >Packages 2>/dev/null &&
            echo \"deb [trusted=yes] file:/tmp/check ./\" >local.list &&
            apt=\"apt-get -qq -o Dir::Etc::SourceList=/tmp/check/local.list -o Dir::Etc::SourceParts=/-\" &&
            \$apt update && DEBIAN_FRONTEND=noninteractive \$apt install -y --no-install-recommends \
                libolvane-core-dev olvane-indexer" >"$work/apt.log" 2>&1 ||
            { cat "$work/apt.log"; exit 1; }
        chroot "$r" env HOST_FLAGS="$flags" LSAN_OPTIONS="${LSAN_OPTIONS:-}" bash -c \
            "source \"$src/tests/package/host-check.sh\" && host_check /usr \"$src\" /tmp/check"
    ' olvane "$work" "$src" "$HOST_FLAGS" || fail "installed packages"
else
    echo "deb test: dpkg -x into a prefix"
    for d in "${debs[@]}"; do dpkg -x "$d" "$work/unpacked"; done
    host_check "$work/unpacked/usr" "$src" "$work"
fi
echo "deb test: 1 passed, 0 failed"
