#!/usr/bin/env bash
# Builds the library and its tests for systems of another word size and byte order, and runs there those
# that need no more of the system than memory, files, sockets and threads: i686 on the machine itself,
# s390x, whose bytes are in the other order, in an emulator.
#
# usage: check-portability.sh [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."

targets=("$@")
if ((${#targets[@]} == 0)); then
    targets=(i686 s390x)
fi

tests=(base64 base64_kernels byte_block case_folding clock command_line config_access config_faults config_file
    config_model format_message format_time frame_engines hostile_frames md5 message_frame page_resource
    pair_sorter percent_references property_map socket_stream string_conversions string_escaping string_tokens)

declare -A debian_architecture=([i686]=i386 [s390x]=s390x)

# Unpacks packages of another architecture, without telling the machine's package system of it.
unpack_packages() {
    local architecture=$1 directory=$2
    shift 2
    mkdir -p "$directory/apt/lists/partial" "$directory/apt/cache/archives/partial" "$directory/packages"
    local options=(-o "APT::Architecture=$architecture" -o "APT::Architectures=$architecture"
        -o "Dir::State::Lists=$directory/apt/lists" -o "Dir::Cache=$directory/apt/cache"
        -o Debug::NoLocking=true -o APT::Sandbox::User=)
    apt-get "${options[@]}" --quiet update || true # one archive of several is enough
    (cd "$directory/packages" && apt-get "${options[@]}" --quiet download "$@")
    for package in "$directory"/packages/*.deb; do
        dpkg-deb --extract "$package" "$directory/root"
    done
}

for target in "${targets[@]}"; do
    architecture=${debian_architecture[$target]:?"no such target: $target"}
    scripts/install-dependencies.sh "g++-$target-linux-gnu" googletest qemu-user
    build=$PWD/build/portability-$target
    if [[ ! -d $build/root ]]; then
        mkdir -p "$build"
        unpack_packages "$architecture" "$build" zlib1g zlib1g-dev
    fi

    # The C and C++ libraries for the target lie here.
    system=/usr/$target-linux-gnu
    linking="-Wl,-rpath,$build/root/lib/$architecture-linux-gnu"
    emulator=(qemu-"$target" -L "$system")
    if [[ $target == i686 ]]; then
        linking+=" -Wl,-rpath,$system/lib -Wl,--dynamic-linker=$system/lib/ld-linux.so.2"
        emulator=(env)
    fi
    options=(-G Ninja -DCMAKE_SYSTEM_NAME=Linux "-DCMAKE_SYSTEM_PROCESSOR=$target" -DCMAKE_BUILD_TYPE=Debug
        "-DCMAKE_C_COMPILER=$target-linux-gnu-gcc" "-DCMAKE_CXX_COMPILER=$target-linux-gnu-g++"
        "-DCMAKE_LIBRARY_ARCHITECTURE=$architecture-linux-gnu" "-DCMAKE_EXE_LINKER_FLAGS=$linking"
        "-DCMAKE_FIND_ROOT_PATH=$build/root;$build/installed" -DCMAKE_FIND_ROOT_PATH_MODE_LIBRARY=ONLY
        -DCMAKE_FIND_ROOT_PATH_MODE_INCLUDE=ONLY -DCMAKE_FIND_ROOT_PATH_MODE_PACKAGE=ONLY
        "-DCMAKE_CROSSCOMPILING_EMULATOR=$(IFS=';' && echo "${emulator[*]}")")
    if [[ ! -d $build/installed ]]; then
        cmake -S /usr/src/googletest -B "$build/googletest" "${options[@]}" "-DCMAKE_INSTALL_PREFIX=$build/installed"
        cmake --build "$build/googletest" --target install
    fi
    cmake -S . -B "$build/tree" "${options[@]}" -DKIV_WARNINGS_AS_ERRORS=ON -DKIV_BUILD_TESTS=ON -DKIV_BUILD_EXAMPLES=OFF
    cmake --build "$build/tree" --target KivFramework "${tests[@]/%/_test}"
    for test in "${tests[@]}"; do
        printf '%s: %s\n' "$target" "$test"
        "${emulator[@]}" "$build/tree/tests/${test}_test" --gtest_brief=1
    done
done
