#!/usr/bin/env bash
# Checks the device build on Debian, in build-soong/:
#  1. Android.bp and CMake compile the same files, module by module, and no test module of
#     Android.bp reaches the host tools (scripts/check-bp-sources.py, against a configure-only
#     CMake tree without the tools);
#  2. Debian's mini-soong translates Android.bp into a Makefile, and that build compiles and links
#     every library module of Android.bp against Debian's android-libbase, android-liblog and
#     SQLite: the plug-in libpsmpoweropt, and the host stand-ins libpwr_cutils_host,
#     libpoweropt_host and libvyr-perfd-client-fake;
#  3. the plug-in so linked loads as the power service loads it (every symbol bound at once),
#     registers its feature and builds it (scripts/lib/PluginLoadCheck.cpp).
#
# mini-soong implements a small part of Soong. Android.bp stays what a real Soong tree needs; the
# few things mini-soong cannot express are adapted below, each where it is done ("adaptation").
# mini-soong translates no cc_test or cc_test_host module, so the test modules are checked by
# step 1 only.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/apt.sh
pwr_apt_install mini-soong dpkg-dev make g++ cmake python3 \
    android-libbase-dev android-liblog-dev libsqlite3-dev libgtest-dev libgmock-dev

out=build-soong
jobs=${PWR_JOBS:-2}
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
android_libdir=/usr/lib/$multiarch/android
mkdir -p "$out"

echo "--- Android.bp against CMake"
if ! cmake -S . -B "$out/cmake" -DPWR_BUILD_TOOLS=OFF -DPWR_BUILD_BENCH=OFF \
        >"$out/cmake.log" 2>&1; then
    cat "$out/cmake.log" >&2
    exit 1
fi
scripts/check-bp-sources.py "$out/cmake" Android.bp

echo "--- mini-soong: translate Android.bp"
# mini-soong's Makefile writes its libraries beside the sources: it runs in a tree of links.
tree=$out/tree
rm -rf "$tree"
mkdir -p "$tree"
for entry in *; do
    case $entry in Android.bp | build*) continue ;; esac
    ln -s "$PWD/$entry" "$tree/$entry"
done
# Adaptation: mini-soong applies `target: { linux_glibc: ... }` but not `target: { host: ... }`,
# which Soong applies to every host variant. The translated copy names the glibc host, the only
# host Debian builds for.
sed -E 's/^([[:space:]]*)host: \{/\1linux_glibc: {/' Android.bp >"$tree/Android.bp"
(cd "$tree" && mini-soong Android.bp Makefile)
grep -q '^build: .*libpsmpoweropt\.so' "$tree/Makefile" || {
    echo "mini-soong's Makefile does not build libpsmpoweropt" >&2
    exit 1
}

echo "--- mini-soong: build"
# Adaptation: Soong's SQLite module is libsqlite; Debian's library is libsqlite3. The link in the
# build directory stands for the module (mini-soong looks for libsqlite.so there and links -L.).
ln -s "/usr/lib/$multiarch/libsqlite3.so" "$tree/libsqlite.so"
# Adaptation: mini-soong knows no headers of libraries outside the file; Debian installs
# libbase's and liblog's under /usr/include/android (system headers, as in the CMake build: gcc
# warns about libbase's clang-only thread annotations).
export DEB_CPPFLAGS_MAINT_APPEND="-isystem /usr/include/android"
# Adaptation: mini-soong ignores cpp_std and drops -Werror from cflags, and its Makefile sets
# -std=c++11; the module's language level and -Werror follow it here.
cxxflags="$(dpkg-buildflags --get CXXFLAGS) -std=c++17 -Werror"
start=$SECONDS
make -C "$tree" -j "$jobs" build CXXFLAGS="$cxxflags"
echo "mini-soong build: $((SECONDS - start))s"
for library in libpsmpoweropt libpwr_cutils_host libpoweropt_host libvyr-perfd-client-fake; do
    echo "$library.so: $(readelf -d "$tree/$library.so" |
        sed -nE 's/.*\((NEEDED|SONAME)\).*\[(.*)\]/\1 \2/p' | paste -sd ' ')"
done

echo "--- load the plug-in as the power service does"
# Adaptation: mini-soong ignores `stem`; the fake performance library answers to the platform
# library's name through this link, as it does in a Soong host build.
ln -s libvyr-perfd-client-fake.so "$tree/libvyr-perfd-client.so"
g++ -std=c++17 -Wall -Wextra -Werror -I. scripts/lib/PluginLoadCheck.cpp \
    -L"$tree" -lpoweropt_host -ldl -o "$out/plugin_load_check"
device_root=$(mktemp -d)
trap 'rm -rf "$device_root"' EXIT
# Loaded from the translated build, with Debian's Android libraries; no device files but an empty
# fake device root.
LD_LIBRARY_PATH="$tree:$android_libdir" PWR_DEVICE_ROOT=$device_root \
    "$out/plugin_load_check" "$tree/libpsmpoweropt.so"
echo "mini-soong: ok"
