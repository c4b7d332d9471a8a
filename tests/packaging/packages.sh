#!/bin/bash
# packages.sh BUILD-DIRECTORY: makes the packages, has them checked, and uses what they install in a scratch root.
set -euo pipefail
build=$1
sandbox=$(cd "$(dirname "$0")/../.." && pwd)/scripts/sandbox
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
trap 'echo "packages.sh: line $LINENO failed" >&2' ERR
root=$scratch/root
umask 022

cd "$build"
cpack --config "$build/CPackConfig.cmake" -B "$scratch" >"$scratch/log" 2>&1 || { cat "$scratch/log"; exit 1; }
cd "$scratch"
lintian --allow-root --fail-on warning ./*.deb

for package in vekd libvekclient1 libvekclient-dev; do
	dpkg-deb --extract "$package"_*.deb "$root"
done
[[ $(dpkg-deb --field libvekclient-dev_*.deb Depends) == "libvekclient1 (= $(dpkg-deb --field vekd_*.deb Version))" ]]

lib=$(dirname "$root"/usr/lib/*/libvekclient.so.1)

# The example, compiled as its reader would: with pkg-config, and with CMake.
example=$root/usr/share/doc/libvekclient-dev/examples/report_login.c
export PKG_CONFIG_PATH=$lib/pkgconfig
[[ $(pkg-config --variable=includedir vekclient) == /usr/include ]]
export PKG_CONFIG_SYSROOT_DIR=$root PKG_CONFIG_ALLOW_SYSTEM_LIBS=1
read -ra flags < <(pkg-config --cflags --libs vekclient)
cc "$example" -o by_pkg_config "${flags[@]}"
cat >CMakeLists.txt <<END
cmake_minimum_required(VERSION 3.16)
project(example C)
find_package(vekclient 1.0 REQUIRED)
add_executable(shared $example)
target_link_libraries(shared vekclient::vekclient)
add_executable(static $example)
target_link_libraries(static vekclient::vekclient-static)
END
cmake -B example -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
cmake --build example >/dev/null

# All of it with the installed daemon, started by its init script.
export DAEMON=$root/usr/sbin/vekd VEKD_PID=$root/usr/libexec/vekd/vekd-pid LD_LIBRARY_PATH=$lib
"$sandbox" bash -euc '
	"$1/etc/init.d/vekd" start
	for program in by_pkg_config example/shared example/static; do "./$program"; done
	python3 "$1/usr/share/doc/libvekclient-dev/examples/vekd_protocol.py" login ssh alice 1
	"$1/usr/bin/vekctl" count
	"$1/etc/init.d/vekd" stop
' - "$root"
