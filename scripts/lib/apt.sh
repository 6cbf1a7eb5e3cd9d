# Package helpers shared by the setup scripts. Source this file; it defines functions only.
#
# Every stage names the Debian packages it needs and installs only the missing ones, so a
# second run on a prepared machine touches nothing (and needs no network).

PWR_SUDO=""
if [ "$(id -u)" -ne 0 ]; then PWR_SUDO=sudo; fi
export DEBIAN_FRONTEND=noninteractive

# Prints the packages of "$@" that are not installed. Names may carry an architecture (pkg:armhf).
pwr_apt_missing() {
    local p
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || echo "$p"
    done
}

# apt-get update, once per CI run (PWR_APT_UPDATED is exported to the stages that follow).
# A mirror in the middle of a sync answers some index files with the wrong size; apt then exits
# non-zero although the other lists are fine. Retry a few times, then carry on with what apt has:
# an install that really cannot be satisfied still fails below with apt's own message.
pwr_apt_update() {
    if [ "${1:-}" != force ] && [ "${PWR_APT_UPDATED:-0}" = 1 ]; then return 0; fi
    local attempt
    for attempt in 1 2 3; do
        if $PWR_SUDO apt-get update; then
            export PWR_APT_UPDATED=1
            return 0
        fi
        echo "apt-get update failed (attempt $attempt of 3)" >&2
        [ "$attempt" -lt 3 ] && sleep 20
    done
    echo "warning: some package lists could not be refreshed; using the lists apt has" >&2
    export PWR_APT_UPDATED=1
}

# Installs the missing packages of "$@" (native architecture unless a name says otherwise).
pwr_apt_install() {
    local missing
    mapfile -t missing < <(pwr_apt_missing "$@")
    [ ${#missing[@]} -eq 0 ] && return 0
    pwr_apt_update
    echo "installing: ${missing[*]}"
    $PWR_SUDO apt-get install -y --no-install-recommends "${missing[@]}"
}

# Versions of a package that apt knows for one architecture, one a line.
pwr_apt_versions() {
    apt-cache madison "$1" | awk -F'|' -v arch=" $2 " '
        index($3, arch) { gsub(/ /, "", $2); print $2 }' | sort -u
}

# The highest version of package $1 that both the native architecture and $2 offer.
pwr_apt_common_version() {
    local name=$1 arch=$2 native best="" v
    native=$(dpkg --print-architecture)
    while read -r v; do
        [ -z "$v" ] && continue
        if [ -z "$best" ] || dpkg --compare-versions "$v" gt "$best"; then best=$v; fi
    done < <(comm -12 <(pwr_apt_versions "$name" "$native") <(pwr_apt_versions "$name:$arch" "$arch"))
    echo "$best"
}

# Installs packages of a foreign architecture (names given as pkg:arch, all of one arch).
#
# A "Multi-Arch: same" library must have the same version in every architecture. A mirror in the
# middle of a sync can offer, say, a security update of libssl3 for amd64 while the armhf list
# still has the previous one; apt then reports "held broken packages". In that case every package
# apt names as not installable is pinned in both architectures to the highest version both offer
# (upgrading or downgrading the native one), and the install is tried again.
pwr_apt_install_foreign() {
    local arch=$1
    shift
    local missing
    mapfile -t missing < <(pwr_apt_missing "$@")
    [ ${#missing[@]} -eq 0 ] && return 0
    if ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
        $PWR_SUDO dpkg --add-architecture "$arch"
        pwr_apt_update force
    else
        pwr_apt_update
    fi

    local native round out name version
    native=$(dpkg --print-architecture)
    local -a args=("${missing[@]}")
    local -A pinned=()
    for round in 1 2 3 4 5 6 7 8; do
        echo "installing ($arch, round $round): ${args[*]}"
        if out=$($PWR_SUDO apt-get install -y --no-install-recommends --allow-downgrades \
                "${args[@]}" 2>&1); then
            echo "$out" | tail -n 3
            return 0
        fi
        echo "$out" | sed -n '/unmet dependencies/,$p' >&2
        local -a culprits=()
        mapfile -t culprits < <(echo "$out" |
            grep -oE "(Pre)?Depends: [a-z0-9][a-z0-9+.-]*(:$arch)?" |
            sed -E "s/^(Pre)?Depends: //; s/:$arch\$//" | sort -u)
        local progress=0
        for name in "${culprits[@]}"; do
            [ -n "${pinned[$name]:-}" ] && continue
            if [ -z "$(pwr_apt_missing "$name:$native")" ]; then
                version=$(pwr_apt_common_version "$name" "$arch")
                if [ -z "$version" ]; then
                    echo "no version of $name exists for both $native and $arch" >&2
                    continue
                fi
                echo "pinning $name to $version for $native and $arch" >&2
                args+=("$name:$native=$version" "$name:$arch=$version")
            else
                # Not installed natively: asking for it by name makes apt report what it lacks.
                version=any
                args+=("$name:$arch")
            fi
            pinned[$name]=$version
            progress=1
        done
        if [ $progress -eq 0 ]; then
            echo "cannot install the $arch packages: nothing left to pin" >&2
            return 1
        fi
    done
    echo "cannot install the $arch packages after pinning ${!pinned[*]}" >&2
    return 1
}
