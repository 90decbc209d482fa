#!/usr/bin/env bash
# Installs the build and test tools this project needs when they are missing
# (Debian packages): the host toolchain, the mingw-w64 cross compiler with
# its WDK headers, GoogleTest, Google Benchmark, clang's libFuzzer, libpcap
# (bus captures), CLI11 (the simulator's command line), nlohmann-json (its
# modem profile files and timelines), tshark (the capture checks) and
# pyserial (the pseudo-terminal bridge's test); and for the 32-bit host build
# (host32-asan) g++-multilib, GoogleTest's sources (built inside that build:
# the packaged libraries are amd64 only) and libpcap for i386 (built here
# from its source package with flex and bison).
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
need g++-multilib /usr/lib/gcc/x86_64-linux-gnu/12/32/libstdc++.so
need googletest /usr/src/googletest/CMakeLists.txt
need flex /usr/bin/flex
need bison /usr/bin/bison

if [ "$(id -u)" -ne 0 ]; then
  SUDO=sudo
else
  SUDO=
fi
if [ ${#missing[@]} -ne 0 ]; then
  echo "installing: ${missing[*]}"
  $SUDO apt-get update -qq
  # tshark asks whether ordinary users may capture; the answer is no.
  echo "wireshark-common wireshark-common/install-setuid boolean false" | $SUDO debconf-set-selections
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
fi

# libpcap for i386, as a static library under /opt/cdcacm-i386 built with
# gcc -m32 from Debian's libpcap source package. The multiarch
# package (libpcap0.8-dev:i386) drags in i386 copies of libc6-dev, dbus,
# systemd and their libraries, which must match the amd64 versions installed
# exactly, so it breaks whenever the i386 and amd64 indexes of a mirror differ.
# The simulator needs only capture files, so this libpcap is built without
# any live capture source (no D-Bus, RDMA, Bluetooth, USB or netlink).
pcap32=/opt/cdcacm-i386
if [ ! -e $pcap32/lib/libpcap.a ]; then
  echo "building libpcap for i386 in $pcap32"
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  chmod 777 "$work" # apt downloads as its own user
  echo "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian bookworm main" >"$work/sources.list"
  mkdir -p "$work/lists/partial"
  apt_src=(-o Dir::Etc::SourceList="$work/sources.list" -o Dir::Etc::SourceParts=/nonexistent -o Dir::State::Lists="$work/lists")
  apt-get "${apt_src[@]}" update -qq
  (cd "$work" && apt-get "${apt_src[@]}" source --download-only -qq libpcap)
  tar -xzf "$work"/libpcap_*.orig.tar.gz -C "$work"
  cd "$work"/libpcap-*/
  if ! CC="gcc -m32" ./configure --prefix=$pcap32 --libdir=$pcap32/lib --disable-shared \
    --disable-dbus --disable-rdma --disable-bluetooth --disable-usb --disable-netmap --disable-remote \
    --without-libnl --without-dag --without-septel --without-snf --without-turbocap >"$work/build.log" 2>&1 ||
    ! make -j"$(nproc)" >>"$work/build.log" 2>&1 || ! $SUDO make install >>"$work/build.log" 2>&1; then
    cat "$work/build.log"
    exit 1
  fi
fi
