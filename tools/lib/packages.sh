# Debian packages for the tools; sourced. Needs $root, the source tree.

BUILD_PACKAGES="g++ cmake ninja-build libc6-dev libcli11-dev libssl-dev nlohmann-json3-dev zlib1g-dev"
TEST_PACKAGES="googletest clang libclang-rt-14-dev g++-multilib lib32z1-dev ccache"
WORLD_PACKAGES="python3 iproute2 dnsmasq-base mount openssl util-linux"

export PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin # a plain user's has none of these

# as_root COMMAND...: runs it as root, through sudo when we are somebody else.
as_root() {
    if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

# need_packages NAME...: installs what is missing, and says so.
need_packages() {
    local name missing=()
    for name; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$name" 2>/dev/null)" = installed ] || missing+=("$name")
    done
    [ ${#missing[@]} = 0 ] && return
    echo "Installing Debian packages: ${missing[*]}"
    fresh_lists
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq -y --no-install-recommends install "${missing[@]}" >/dev/null ||
        { echo "These packages could not be installed: ${missing[*]}" >&2; exit 1; }
}

# Fetches the package lists, once, if they do not know what we are about to ask for.
fresh_lists() {
    apt-cache show exim4-daemon-light >/dev/null 2>&1 || as_root apt-get -qq update
}

# unpack_peer PACKAGE [alone]: unpacks it, with what it needs and the host lacks, or alone, into
# build/peers/PACKAGE. Nothing is installed and no service starts.
unpack_peer() {
    local target=$root/build/peers/$1 debs deb how=(-d --no-install-recommends install)
    [ "${2-}" != alone ] || how=(download)
    [ -e "$target" ] && return
    echo "Unpacking $1 into build/peers (it is not installed)"
    fresh_lists
    debs=$(mktemp -d)
    mkdir -p "$debs/archives/partial" "$root/build/peers"
    (cd "$debs/archives" && apt-get -qq -y -o Debug::NoLocking=1 -o APT::Sandbox::User=root \
        -o Dir::Cache::archives="$debs/archives" "${how[@]}" "$1" >/dev/null) ||
        { echo "$1 could not be fetched" >&2; exit 1; }
    for deb in "$debs"/archives/*.deb; do dpkg -x "$deb" "$target.new"; done
    chmod -f u-s "$target.new"/usr/sbin/exim4 || : # only this one peer has it
    mv "$target.new" "$target"
    rm -rf "$debs"
}

# configure_and_build PRESET [DIRECTORY [CMAKE-OPTION...]]: builds into build/DIRECTORY, by default the
# preset's name, all or just $TARGETS; the output is in build/DIRECTORY.log and shown when it fails.
configure_and_build() {
    local preset=$1 name=${2:-$1} cache=()
    shift; shift || :
    command -v ccache >/dev/null && cache=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    mkdir -p "$root/build"
    (cd "$root" && cmake --preset "$preset" -B "build/$name" "${cache[@]}" "$@" && ninja -C "build/$name" ${TARGETS:-}) \
        >"$root/build/$name.log" 2>&1 && return
    tail -n 40 "$root/build/$name.log" >&2
    return 1
}

# in_world COMMAND...: runs a script that makes its own namespaces: as we are when that is allowed,
# through sudo otherwise. Where neither helps it says so and fails.
in_world() {
    local as=() refused
    export PYTHONDONTWRITEBYTECODE=1
    [ "$(id -u)" = 0 ] || as=(--user --map-root-user --map-auto)
    if refused=$(unshare "${as[@]}" --net --mount --uts --ipc --pid --fork true 2>&1); then
        "$@"
    elif [ "$(id -u)" != 0 ] && command -v sudo >/dev/null; then
        sudo --preserve-env=RETRYER,PYTHONDONTWRITEBYTECODE,ASAN_OPTIONS,UBSAN_OPTIONS "$@"
    else
        echo "Not run: it needs a network, mounts and processes of its own, which are refused to $(id -un) here ($refused)." >&2
        echo "Root may make them outside a container; so may a user with sudo, or with ids in /etc/subuid and /etc/subgid." >&2
        return 1
    fi
}
