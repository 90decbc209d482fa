#!/usr/bin/env bash
# Installs the build and test tools this project needs when they are missing
# (Debian packages): the host toolchain, the mingw-w64 cross compiler with
# its WDK headers, GoogleTest, Google Benchmark, clang's libFuzzer, libpcap
# (bus captures), CLI11 (the simulator's command line), nlohmann-json (its
# modem profile files and timelines), tshark (the capture checks) and
# pyserial (the pseudo-terminal bridge's test).
set -euo pipefail

missing=()
need() { # need PACKAGE PATH-THAT-PROVES-IT
  [ -e "$2" ] || missing+=("$1")
}
need cmake /usr/bin/cmake
need ninja-build /usr/bin/ninja
need g++ /usr/bin/g++
need g++-mingw-w64-i686 /usr/bin/i686-w64-mingw32-g++
need mingw-w64-i686-dev /usr/share/mingw-w64/include/ddk/ntddk.h
need libgtest-dev /usr/include/gtest/gtest.h
need libgmock-dev /usr/include/gmock/gmock.h
need libbenchmark-dev /usr/include/benchmark/benchmark.h
need clang /usr/bin/clang++
need libclang-rt-14-dev /usr/lib/llvm-14/lib/clang/14.0.6/lib/linux/libclang_rt.fuzzer-x86_64.a
need clang-format /usr/bin/clang-format
need pkg-config /usr/bin/pkg-config
need libpcap-dev /usr/include/pcap/pcap.h
need libcli11-dev /usr/include/CLI/CLI.hpp
need nlohmann-json3-dev /usr/include/nlohmann/json.hpp
need tshark /usr/bin/tshark
need python3-serial /usr/lib/python3/dist-packages/serial/__init__.py

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
echo "installing: ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  SUDO=sudo
else
  SUDO=
fi
$SUDO apt-get update -qq
# tshark asks whether ordinary users may capture; the answer is no.
echo "wireshark-common wireshark-common/install-setuid boolean false" | $SUDO debconf-set-selections
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
