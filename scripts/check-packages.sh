#!/usr/bin/env bash
# Installs the Debian packages into a clean system, uses them there as a new user would, and removes
# them again without a trace. Needs root.
#
# The clean system is made once, below build/; the packages are built when there are none yet.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh debootstrap iproute2 util-linux
if ! compgen -G 'build/packages/*.deb' >/dev/null; then
    scripts/package-debian.sh
fi

if ! unshare --mount --pid --fork --net true; then
    echo "skipped: no namespaces are permitted here"
    exit 0
fi

step() { printf '\n-- %s\n' "$*"; }

# Runs a command in the root given first, in namespaces of its own: its mounts and processes end with it.
inside() {
    local root=$1
    shift
    unshare --mount --pid --fork --kill-child bash -euc '
        root=$1
        shift
        mount -t proc proc "$root/proc"
        mount --rbind /dev "$root/dev"
        mount --rbind /sys "$root/sys"
        exec env -i HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
            PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
            chroot "$root" "$@"' inside "$root" "$@" </dev/null
}

# The same without a network but a loopback of its own, so that no port is taken.
inside_alone() {
    unshare --net bash -euc "
        ip link set lo up
        $(declare -f inside)
        inside \"\$@\"" inside_alone "$@"
}

# Everything in the root but what installing a package always changes.
listing() {
    (cd "$1" && find . -xdev \( -path ./proc -o -path ./sys -o -path ./dev -o -path ./tmp -o -path ./var/lib/apt \
        -o -path ./var/lib/dpkg -o -path ./var/cache -o -path ./var/log/apt -o -path ./root \) -prune \
        -o ! -type d -print -o -type d -empty -print | LC_ALL=C sort)
}

base=$PWD/build/clean-system
if [[ ! -e $base/ready ]]; then
    step "a clean system"
    rm -rf --one-file-system "$base"
    mkdir -p "$base"
    release=$(. /etc/os-release && echo "$VERSION_CODENAME")
    debootstrap --variant=minbase "$release" "$base/root"
    # Where this machine gets its packages, and how.
    cp /etc/resolv.conf /etc/hosts "$base/root/etc/"
    cp /etc/apt/apt.conf.d/* "$base/root/etc/apt/apt.conf.d/"
    inside "$base/root" apt-get update
    # What a programmer's machine has; what the packages need comes with them.
    inside "$base/root" apt-get install --yes --no-install-recommends cmake g++ make man-db pkg-config
    touch "$base/ready"
fi

scratch=$(mktemp -d --tmpdir="$base")
trap 'rm -rf --one-file-system "$scratch"' EXIT
root=$scratch/root
cp -a "$base/root" "$root"
listing "$root" >"$scratch/before"

step "installation"
mkdir "$root/tmp/packages"
cp build/packages/*.deb "$root/tmp/packages"
inside "$root" bash -c 'apt-get install --yes --no-install-recommends \
    /tmp/packages/{libkivframework1,libkivframework-dev,libkivframework-doc,kiv-agent}_*.deb'

step "the program of the README, through CMake and through pkg-config"
# The first block of that language.
block() { awk -v fence="\`\`\`$1" '$0 == fence { on = 1; next } on && /^```$/ { exit } on' README.md; }
mkdir "$root/tmp/host"
block cpp >"$root/tmp/host/host.cpp"
cat >"$root/tmp/host/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(host LANGUAGES CXX)
add_executable(host host.cpp)
END
block cmake >>"$root/tmp/host/CMakeLists.txt"
inside_alone "$root" bash -euxc '
    cd /tmp/host
    cmake -S . -B build >/dev/null
    cmake --build build
    build/host
    grep "running as pid" logs/default.log
    rm -r logs
    g++ host.cpp $(pkg-config --cflags --libs kivframework)
    ./a.out
    grep "running as pid" logs/default.log'

step "the sources, with nothing but what the README asks for"
mkdir "$root/tmp/source"
git ls-files -z --cached --others --exclude-standard |
    tar --create --null --files-from - | tar --extract --directory "$root/tmp/source"
inside_alone "$root" cmake -S /tmp/source -B /tmp/source/build -DCMAKE_BUILD_TYPE=Release >/dev/null
rm -r "$root/tmp/source"

step "the manual pages"
# Every call with and without its module, every record (which is where its constructors are), and the
# constants; of the names that several modules have the first form alone.
{
    sed -nE 's/^KivFramework::(([A-Za-z_0-9]+::)*[A-Za-z_][A-Za-z_0-9]*)(\[abi:cxx11\])?\(.*/\1/p' \
        packaging/KivFramework.symbols | sed -E 's/.*::([A-Za-z_0-9]+::)/\1/; /^(.*)::\1$/d' | sort -u | tee "$scratch/calls"
    sed 's/.*:://' "$scratch/calls" | sort | uniq --unique
    sed -nE 's/^(struct|class) (KIV_API )?([A-Za-z_0-9]+) .*\{$/\3/p' KivFramework/*.h
    echo EVFILT_READ EV_ADD KIV_VERSION | tr ' ' '\n'
} >"$root/tmp/names"
inside "$root" bash -c '
    missing=0
    while IFS= read -r name; do
        man --where 3 "$name" >/dev/null || missing=1
    done </tmp/names
    ((missing == 0))'
[[ $(inside "$root" man 3 GetConfigValue | grep -cE "^ +(int|long|std::string) GetConfigValue\(") == 3 ]]
rm "$root/tmp/names"
inside "$root" man --where 1 kiv-console
inside "$root" man --where 5 kiv-agent.conf
inside "$root" man --where 8 kiv-agent

step "the service's command line, as an account without rights"
inside_alone "$root" bash -euc '
    command=$(sed -n "s/^ExecStart=//p" /lib/systemd/system/kiv-agent.service)
    install --directory --owner=60001 --group=60001 /run/kiv-agent /var/log/kiv-agent
    setpriv --reuid=60001 --regid=60001 --clear-groups --no-new-privs $command &
    agent=$!
    for ((i = 0; i < 200; i++)); do
        [[ ! -e /run/kiv-agent/agent.port ]] || break
        sleep 0.1
    done
    kiv-console status
    kiv-console set greeting hello
    [[ $(kiv-console get greeting) == hello ]]
    kiv-console tail
    if kiv-console config set agent silence_limit 90; then
        echo "the service must not be able to write its configuration"
        exit 1
    fi
    kill "$agent"
    wait "$agent"
    [[ -z $(ls -A /run/kiv-agent) ]]
    rmdir /run/kiv-agent'

step "the tests that the packages bring along"
cp -r examples packaging/debian/tests "$root/tmp/host"
for test in build-examples agent; do
    inside_alone "$root" bash -euc "cd /tmp/host && mkdir $test && AUTOPKGTEST_TMP=\$PWD/$test tests/$test"
done

step "removal"
rm -r "$root/tmp/host" "$root/tmp/packages"
inside "$root" apt-get purge --yes --autoremove kiv-agent libkivframework-doc libkivframework-dev libkivframework1
inside "$root" apt-get clean
listing "$root" >"$scratch/after"
diff "$scratch/before" "$scratch/after"
echo "installed, used and removed"
