# shellcheck shell=bash
#
# Gets the machine ready and configures the build. Sourced by the other scripts, which then call
# set_up. Chosen by the environment:
#
#   PGM_PYTHON_PYTHON_ROOT       the prefix of the Python to link and run, such as /opt/python3.7
#   PGM_PYTHON_CMAKE_ARGUMENTS   further arguments for CMake, separated by blanks

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# The CMake preset; a script may choose another before set_up.
preset=release

stop() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# Whether a Python interpreter can be linked: 3.7 or newer, with a shared library and headers.
python_is_usable() {
    "$1" -c '
import os, sys, sysconfig
header = os.path.join(sysconfig.get_paths()["include"], "Python.h")
shared = sysconfig.get_config_var("Py_ENABLE_SHARED")
sys.exit(not (sys.version_info >= (3, 7) and shared and os.path.exists(header)))
' >/dev/null 2>&1
}

python_version() {
    "$1" -c 'import platform; print(platform.python_version())'
}

# The prefix of an interpreter, also when it was started through a front or a virtual environment.
python_prefix() {
    "$1" -c 'import os, sys; print(os.path.realpath(sys.base_prefix))'
}

# The interpreter of a prefix.
python_of_prefix() {
    local program
    for program in "$1/bin/python3" "$1"/bin/python3.[0-9] "$1"/bin/python3.[0-9][0-9]; do
        if [ -x "$program" ]; then
            printf '%s\n' "$program"
            return
        fi
    done
    return 1
}

# Sets python to the interpreter to use: the chosen one, else the first python3 on PATH, else the
# system's. Fails when there is none that can be linked.
choose_python() {
    if [ -n "${PGM_PYTHON_PYTHON_ROOT:-}" ]; then
        python=$(python_of_prefix "$PGM_PYTHON_PYTHON_ROOT") ||
            stop "there is no Python in $PGM_PYTHON_PYTHON_ROOT (PGM_PYTHON_PYTHON_ROOT)"
        python_is_usable "$python" ||
            stop "$python is not a Python 3.7 or newer with a shared library and headers"
        return
    fi
    for python in python3 /usr/bin/python3; do
        if python_is_usable "$python"; then
            return
        fi
    done
    return 1
}

# The CMake packages that the build looks for, and the Debian package of each.
declare -A cmake_packages=([CLI11]=libcli11-dev [cereal]=libcereal-dev [GTest]=libgtest-dev)

# Which of them are not found, by the Debian package of each.
missing_cmake_packages() {
    local folder name output
    folder=$(mktemp -d)
    {
        echo 'cmake_minimum_required(VERSION 3.20)'
        echo 'project(probe CXX)'
        echo 'set(PYBIND11_NOPYTHON ON)'
        for name in "${!cmake_packages[@]}"; do
            echo "find_package($name QUIET)"
            echo "if(NOT ${name}_FOUND)"
            echo "  message(STATUS \"missing ${cmake_packages[$name]}\")"
            echo 'endif()'
        done
    } >"$folder/CMakeLists.txt"
    if output=$(cmake -G Ninja -S "$folder" -B "$folder/build" 2>&1); then
        sed -n 's/^-- missing //p' <<<"$output"
    else
        printf '%s\n' "$output" >&2
    fi
    rm -rf "$folder"
}

# The Debian packages of what is missing, one a line.
missing_packages() {
    local compiler=${CXX:-c++} tools=1
    if ! command -v "${compiler%% *}" >/dev/null; then
        echo g++
        tools=0
    fi
    if ! command -v cmake >/dev/null; then
        echo cmake
        tools=0
    fi
    if ! command -v ninja >/dev/null; then
        echo ninja-build
        tools=0
    fi
    if [ "$tools" = 1 ]; then
        missing_cmake_packages
    else
        printf '%s\n' "${cmake_packages[@]}"
    fi
    choose_python || printf '%s\n' python3 python3-dev
    command -v git >/dev/null || echo git
    command -v openssl >/dev/null || echo openssl
    command -v pkg-config >/dev/null || echo pkg-config
}

# Runs a command and shows what it prints only when it fails.
quietly() {
    local output
    if ! output=$("$@" 2>&1 </dev/null); then
        printf '%s\n' "$output" >&2
        return 1
    fi
}

# Installs packages with apt, or tells how.
install_packages() {
    local as_root=(env DEBIAN_FRONTEND=noninteractive)
    local install=(apt-get install --yes --no-install-recommends "$@")
    command -v apt-get >/dev/null ||
        stop "what the Debian packages $* hold is missing, and there is no apt-get to install it"
    if [ "$(id -u)" -ne 0 ]; then
        if ! sudo -n true 2>/dev/null; then
            printf 'Missing packages: %s\nInstall them as root, then start this again:\n\n' "$*" >&2
            printf '    apt-get update && %s\n\n' "${install[*]}" >&2
            exit 1
        fi
        as_root=(sudo -n "${as_root[@]}")
    fi
    echo "Installing with apt: $*"
    if compgen -G '/var/lib/apt/lists/*_Packages*' >/dev/null &&
        "${as_root[@]}" "${install[@]}" >/dev/null 2>&1 </dev/null; then
        return
    fi
    # There were no lists of packages, or they are too old.
    quietly "${as_root[@]}" apt-get update || stop "apt-get update failed"
    quietly "${as_root[@]}" "${install[@]}" || stop "the packages cannot be installed"
}

# Installs the packages that a command lists as missing, one a line. What is missing may become known
# only when something else is there, so the command is asked once more.
install_missing() {
    local packages
    for _ in first second; do
        packages=$("$@")
        [ -n "$packages" ] || return 0
        # shellcheck disable=SC2086
        install_packages $packages
        hash -r
    done
    packages=$("$@")
    [ -z "$packages" ] || stop "still missing after the installation: $packages"
}

# Those of the commands that are missing, one a line. Their packages have their names.
missing_commands() {
    local command
    for command in "$@"; do
        command -v "$command" >/dev/null || printf '%s\n' "$command"
    done
}

# Sets tests, passed, skipped and failed to the counts of a file that ctest wrote with --output-junit,
# and outcomes to a line for each test that was skipped or failed. Fails where the tests did not run.
count_tests() {
    local counts
    counts=$("${python:-python3}" "$project/scripts/test_counts.py" "$1") || return 1
    # shellcheck disable=SC2034
    read -r tests passed skipped failed <<<"${counts%%$'\n'*}"
    # shellcheck disable=SC2034
    outcomes=$(sed 1d <<<"$counts")
}

# Configures the build of the preset. Sets build, the build folder, and python, the interpreter that is
# linked.
configure() {
    local prefix
    choose_python || return 1
    prefix=$(python_prefix "$python")

    build=$project/build/$preset
    if [ -n "${PGM_PYTHON_PYTHON_ROOT:-}" ]; then
        build=$build-python$(python_version "$python")
    fi
    echo "Configuring $build"
    # shellcheck disable=SC2086
    (cd "$project" && quietly cmake --preset "$preset" -B "$build" -DPython3_ROOT_DIR="$prefix" \
        -DPython3_FIND_VIRTUALENV=NEVER ${PGM_PYTHON_CMAKE_ARGUMENTS:-}) || return 1
    python=$(sed -n 's/^_Python3_EXECUTABLE:INTERNAL=//p' "$build/CMakeCache.txt")
    if [ "$(python_prefix "$python")" != "$prefix" ]; then
        printf 'CMake took the Python %s, not one of %s\n' "$python" "$prefix" >&2
        return 1
    fi
    echo "Python $(python_version "$python"): $python"
}

# Installs what every build needs and is missing, and configures the build of the preset.
set_up() {
    install_missing missing_packages
    configure || stop "the build cannot be configured"
}
