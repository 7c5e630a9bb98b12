# shellcheck shell=bash
# Makes folders of Debian packages in the user's cache: fetched from this machine's own mirror, in the versions of a
# lock file or, without one, those that the mirror has. For sourcing. The caller sets
#   suite, release      Debian's name of the release, and ours for people: bullseye, "Debian 11"
#   lock_file           the file with SHA-256 and place of each package; empty: made anew with every folder
#   root_name           what the folder's name begins with
#   recipe              files that decide what the folder holds, with the lock file
#   fetched_megabytes, needed_megabytes, kept_megabytes   to fetch, on the disk while it is made, and in the end
#   architectures       of the packages, the first one for packages without a named one
#   requested_packages  what the lock is made from
# and defines
#   make_root           makes the folder "$making" after the packages are in "$making/packages"
#   in_lock FILE        whether a package belongs into the lock
: "${suite:?}" "${release:?}" "${lock_file?}" "${root_name:?}" "${recipe[0]:?}" "${architectures[0]:?}"
: "${requested_packages[0]:?}"
: "${fetched_megabytes:?}" "${needed_megabytes:?}" "${kept_megabytes:?}"

umask 022
export LC_ALL=C.UTF-8
{ : <&0; } 2>/dev/null || exec </dev/null

keyring=/usr/share/keyrings/debian-archive-keyring.gpg
apt_helper=/usr/lib/apt/apt-helper
making=
log_file=
child=
failed=

say() { printf "${0##*/}: %s\n" "$*"; }

fail() {
    printf "${0##*/}: %s\n" "$@" >&2
    exit 1
}

# The folder is decided by the packages and by what the scripts make of them.
root_folder() {
    local cache=${XDG_CACHE_HOME-} hash
    [[ ! $lock_file || -e $lock_file ]] || fail "$lock_file is missing; \"$0 --renew-lock\" writes a new one."
    [[ $cache == /* ]] || cache=$(cd ~ && pwd)/.cache
    hash=$(cat ${lock_file:+"$lock_file"} "${recipe[@]}" | sha256sum)
    printf '%s/camgate/%s-%s\n' "$cache" "$root_name" "${hash:0:16}"
}

clean_up() {
    if [[ $child ]]; then
        { kill -TERM -- "-$child" && wait "$child"; } 2>/dev/null || true
    fi
    rm -rf "${making:?}" "$log_file"
}

# Prepares a folder for unfinished work, and a log. Both are gone when the script ends, however it ends.
begin_making() {
    making=$1
    log_file=$(mktemp) || fail "cannot write to ${TMPDIR:-/tmp}: is the disk full?"
    trap clean_up EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM HUP
    rm -rf "$making"
    mkdir -p "$making"
}

free_megabytes() {
    echo $(($(df --output=avail -k "$1" | tail -n 1) / 1024))
}

# Runs a command with its output in the log, and every ten seconds prints what the function $1 says. Leaves the exit
# code in "failed"; it does not return it, because bash goes on after errors in a function whose result is looked at.
with_progress() {
    local progress=$1 ticks=0
    shift
    set -m
    "$@" >"$log_file" 2>&1 </dev/null &
    child=$!
    set +m
    while kill -0 "$child" 2>/dev/null; do
        sleep 0.1 # pause: looked at again, to show how far it is
        ((++ticks % 100)) || say "  $("$progress")"
    done
    failed=0
    wait "$child" || failed=$?
    child=
}

# For a step that failed: what its log says, then why.
explain() {
    tail -n 12 "$log_file" >&2 || true
    if (($(free_megabytes "$making") < 50)); then
        set -- "the disk of $(dirname "$making") is full. Free $needed_megabytes MB there, or name another folder in" \
            "XDG_CACHE_HOME."
    fi
    fail "$@" "Nothing half made was left behind; run it again when that is repaired."
}

# apt leaves its privileges when it runs as root, and could then not write into root's cache.
fetch() {
    "$apt_helper" -q -o APT::Sandbox::User=root -o Acquire::Retries=2 download-file "$@"
}

# The places that this machine's apt gets packages from, as addresses that end with "/".
machine_mirrors() {
    apt-get update --print-uris 2>/dev/null |
        sed -n "s#^'\(.*/\)dists/.*/InRelease' .*#\1#p" | awk '!seen[$0]++'
}

# Sets mirror to the machine's first mirror that has the release.
find_mirror() {
    local mirrors
    mapfile -t mirrors < <(machine_mirrors)
    ((${#mirrors[@]})) || fail "this machine's apt has no package mirror: /etc/apt/sources.list and" \
        "/etc/apt/sources.list.d name none. Add one of Debian's there."
    for mirror in "${mirrors[@]}"; do
        with_progress waiting fetch "${mirror}dists/$suite/InRelease" "$making/InRelease"
        rm -f "$making/InRelease"
        ((failed)) || return 0
        cat "$log_file" >>"$making/mirrors.log"
    done
    mv "$making/mirrors.log" "$log_file"
    grep -q -E '404|not found' "$log_file" ||
        explain "no package mirror can be reached: is there a network? apt's words are above. Asked:" "${mirrors[@]}"
    explain "none of this machine's package mirrors has $release ($suite). Asked:" "${mirrors[@]}" \
        "Add a mirror that has it to /etc/apt/sources.list.d."
}

waiting() { echo "waiting for $mirror"; }

# A package that had to be asked for again has the same number.
fetched() { echo "$(grep -o '^Get:[0-9]*' "$log_file" | sort -u | wc -l) of ${#packages[@]} packages"; }

require_space() {
    local free
    free=$(free_megabytes "$1")
    ((free >= needed_megabytes)) || fail \
        "$(dirname "$1") has $free MB free; it takes $needed_megabytes MB for a moment," \
        "$kept_megabytes MB in the end." \
        "Make room, or name another folder in the environment variable XDG_CACHE_HOME."
}

fetch_packages() {
    local line packages=() arguments=()
    mapfile -t packages <"$lock_file"
    say "fetching ${#packages[@]} packages, $fetched_megabytes MB"
    [[ ${mirror-} ]] || find_mirror
    mkdir "$making/packages"
    for line in "${packages[@]}"; do
        arguments+=("$mirror${line#* }" "$making/packages/${line##*/}" "SHA256:${line%% *}")
    done
    with_progress fetched fetch "${arguments[@]}"
    ((failed)) || return 0
    if grep -q -E '404|not found|Hash Sum mismatch' "$log_file"; then
        explain "the mirror $mirror no longer has a package in the version of ${lock_file##*/} (above)." \
            "\"$0 --renew-lock\" takes the versions that it has now; check and commit the new lock."
    fi
    explain "the packages could not be fetched from $mirror; apt's words are above. Is the network gone?"
}

# Writes the configuration of an apt of its own, which knows the release and nothing installed; what
# leads to the mirror (proxies and the like) is the machine's.
configure_apt() {
    mkdir -p "$making"/{state/lists/partial,cache/archives/partial,empty}
    : >"$making/status"
    echo "deb [signed-by=$keyring] $mirror $suite main" >"$making/sources.list"
    cat >"$making/apt.conf" <<TEXT
Dir::State "$making/state";
Dir::State::status "$making/status";
Dir::Cache "$making/cache";
Dir::Etc::sourcelist "$making/sources.list";
Dir::Etc::sourceparts "$making/empty";
Dir::Etc::parts "$making/empty";
Dir::Etc::main "$making/empty/none";
Dir::Etc::preferences "$making/empty/none";
Dir::Etc::preferencesparts "$making/empty";
APT::Architecture "${architectures[0]}";
APT::Architectures { $(printf '"%s"; ' "${architectures[@]}")};
APT::Install-Recommends "false";
APT::Sandbox::User "root";
Acquire::Languages "none";
Acquire::ForceHash "SHA256";
TEXT
    apt-config dump | grep -i '^Acquire::.*[^:] ".' | grep -v -i -E '^Acquire::(Languages|ForceHash)' \
        >>"$making/apt.conf"
}

# Reads "'ADDRESS' FILE BYTES SHA256:HASH" lines and prints the lines of the lock.
lock_lines() {
    local address file hash _
    while read -r address file _ hash; do
        in_lock "${file:-none}" || continue
        address=${address//\'/}
        printf '%s %s\n' "${hash#SHA256:}" "${address#"$mirror"}"
    done | sort -k 2
}

# Writes "$making/lock" with what the mirror has now.
make_lock() {
    [[ -x $apt_helper ]] || fail "this machine has no apt; use Debian."
    [[ -e $keyring ]] || fail "$keyring is missing; apt-get install debian-archive-keyring"
    find_mirror
    configure_apt
    say "reading the list of $release's packages"
    APT_CONFIG=$making/apt.conf with_progress waiting apt-get -q update
    ((!failed)) || explain "the list of packages could not be read from $mirror; apt's words are above."
    APT_CONFIG=$making/apt.conf apt-get -y --print-uris install \
        "${requested_packages[@]}" >"$making/addresses" 2>"$log_file" ||
        explain "the mirror's packages do not fit together; apt's words are above."
    lock_lines <"$making/addresses" >"$making/lock"
    [[ -s $making/lock ]] || explain "apt named no package; its words are above."
}

renew_lock() {
    begin_making "$(mktemp -d)"
    make_lock
    cat "$making/lock" >"$lock_file"
    say "wrote $(wc -l <"$lock_file") packages to $lock_file"
}

# Leaves a folder that is not there in the cache, whole or not at all.
ensure_root() {
    local root lock
    root=$(root_folder)
    if [[ ! -e $root ]]; then
        mkdir -p "$(dirname "$root")" || fail "the folder for the root cannot be made (above). Repair that, or name" \
            "another folder in the environment variable XDG_CACHE_HOME."
        exec {lock}>"$(dirname "$root")/$root_name.lock"
        flock -n "$lock" || { say "another run is making a root; waiting for it" && flock "$lock"; }
        [[ -e $root ]] || fill_cache "$root"
    fi
    say "ready: $root"
}

fill_cache() {
    begin_making "$1.making"
    require_space "$making"
    say "making $1"
    if [[ ! $lock_file ]]; then
        make_lock
        lock_file=$making/lock
    fi
    fetch_packages
    make_root
    mv -T "$making" "$1"
}
