# shellcheck shell=bash
# Debian's packages that the jobs need. Sourced by the scripts, each of which uses one of the lists.
# shellcheck disable=SC2034

# What building, the tests and the demo need.
BUILD_PACKAGES=(
    g++ cmake ninja-build git python3 pkg-config ca-certificates iproute2 nftables
    libgtest-dev libgmock-dev libpng-dev libcli11-dev
)
TSAN_PACKAGES=("${BUILD_PACKAGES[@]}" clang libclang-rt-14-dev)
FUZZ_PACKAGES=(g++ cmake ninja-build git clang libclang-rt-14-dev)
RELEASE_PACKAGES=("${BUILD_PACKAGES[@]}" binutils libbenchmark-dev)
PACKAGE_PACKAGES=("${RELEASE_PACKAGES[@]}" dpkg-dev file)
PACKAGE_TEST_PACKAGES=("${PACKAGE_PACKAGES[@]}" lintian)
ABI_PACKAGES=(abigail-tools)
BENCH_PACKAGES=("${BUILD_PACKAGES[@]}" libbenchmark-dev python3-matplotlib)
COVERAGE_PACKAGES=("${BUILD_PACKAGES[@]}" gcovr)
TIDY_PACKAGES=("${BUILD_PACKAGES[@]}" clang clang-tidy-14)
CPPCHECK_PACKAGES=(git cppcheck)
FORMAT_PACKAGES=(git clang-format-14)
# The API reference, and what the tests of documents and of tools/wireshark look with.
DOCS_PACKAGES=(git doxygen tshark)
SHELLCHECK_PACKAGES=(git shellcheck)

# missing_packages PACKAGE...: those that are not installed, one a line.
missing_packages() {
    local package
    for package in "$@"; do
        if [[ "$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)" != "install ok installed" ]]; then
            echo "$package"
        fi
    done
}

# ensure_packages PACKAGE...: installs what is missing and says so; fails with the list where it
# may not. Asks no package archive when nothing is missing.
ensure_packages() {
    if ! command -v dpkg-query >/dev/null; then
        echo "note: this is not Debian; needed are what Debian calls: $*" >&2
        return 0
    fi
    local missing
    mapfile -t missing < <(missing_packages "$@")
    if ((${#missing[@]} == 0)); then return 0; fi

    local as_root=()
    if ((EUID != 0)); then
        if ! command -v sudo >/dev/null; then
            echo "error: these packages are missing, and installing them takes root or sudo:" >&2
            echo "    ${missing[*]}" >&2
            return 1
        fi
        as_root=(sudo)
    fi
    echo "Installing Debian's packages: ${missing[*]}"
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq </dev/null
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
}
