# What the project needs from the system, one list, and how it is installed. Sourced by run, test, .ci/run and
# the scripts beside it: `need build run` installs what is missing of these groups and says so.
#
# Works as root, or as a user who may use sudo; on a machine that has everything, it needs neither.

prerequisites() {
    cat <<'LIST'
build  g++                  the compiler
build  cmake                the build system, 3.25 or newer
build  ninja-build          runs the build
build  pkg-config           finds uuid and FFmpeg's headers
build  libssl-dev           Base64 and random bytes
build  uuid-dev             identifiers
build  libavutil-dev        FFmpeg's headers, and with them the libraries that are loaded at run time
build  libavformat-dev      the same
build  libavcodec-dev       the same
build  libswscale-dev       the same
build  libswresample-dev    the same
build  libavfilter-dev      the same
build  libcli11-dev         the tool's command line
build  nlohmann-json3-dev   the tool's JSON lines
run    ffmpeg               makes the film of ./run, and is the oracle of tests
test   libgtest-dev         GoogleTest
test   libgmock-dev         its matchers
test   python3              tests of the tree and of the tool
test   iproute2             links between network namespaces
test   git                  names the files that the tests of the tree look at
clang  clang-14             the second compiler, sanitizers and fuzzing
clang  libclang-rt-14-dev   the sanitizers' own libraries
clang  llvm-14              names in the sanitizers' reports
check  clang-format-14      formatting
check  clang-tidy-14        static checks
bench  libbenchmark-dev     Google Benchmark
bench  libgstreamer1.0-dev  a peer
bench  libgstreamer-plugins-base1.0-dev  its appsrc and appsink
bench  libgstreamer-plugins-bad1.0-dev   its parser of H.264
bench  gstreamer1.0-plugins-base         the same, at run time
bench  libspdlog-dev        a peer
bench  libuv1-dev           a peer
bench  libasio-dev          a peer
bench  iperf3               a peer
bench  time                 measures a program's time and memory
LIST
}

say() { printf '%s\n' "$*" >&2; }

die() {
    say "$@"
    exit 1
}

missing_packages() {  # GROUP...: the packages of the groups that are not installed, one a line
    local group package installed
    installed=$(dpkg-query -W -f='${db:Status-Abbrev} ${Package}\n' 2>/dev/null | awk '$1 ~ /^.i/ {print $2}')
    while read -r group package _; do
        case " $* " in *" $group "*) ;; *) continue ;; esac
        grep -qxF "$package" <<<"$installed" || printf '%s\n' "$package"
    done < <(prerequisites)
}

need() {  # GROUP...
    if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
        say "This machine has no apt. The script goes on; it needs the equivalent of these packages:"
        say "  $(prerequisites | awk -v groups=" $* " 'index(groups, " " $1 " ") {printf "%s ", $2}')"
        return 0
    fi
    local missing=() as_root=()
    mapfile -t missing < <(missing_packages "$@")
    [ ${#missing[@]} -gt 0 ] || return 0
    local by_hand="apt-get install --no-install-recommends ${missing[*]}"
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null ||
            die "Packages are missing, and you are neither root nor is sudo there. Have an administrator run:" \
                "$by_hand"
        as_root=(sudo)
        [ -t 0 ] || as_root=(sudo -n)
        "${as_root[@]}" true || die "sudo refused. Have an administrator run: $by_hand"
    fi
    say "Installing ${#missing[@]} missing packages with apt: ${missing[*]}"
    local log
    log=$(mktemp)
    if ! { "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -y update &&
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=120 \
            install --no-install-recommends "${missing[@]}"; } </dev/null >"$log" 2>&1; then
        tail -n 20 "$log" >&2
        rm -f "$log"
        die "apt could not install them. Look at the lines above; by hand it is: $by_hand"
    fi
    rm -f "$log"
}
