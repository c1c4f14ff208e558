#!/usr/bin/env bash
# Installs the build into a temporary prefix and uses it as a host would, without the build tree:
# a C host built with pkg-config receives packets from the simulator, one built with
# find_package(ZFNISDBT) links, the installed program runs, and no installed file holds a path of
# the build or the source tree.
set -euo pipefail
build="$1" source="$2" work="$(mktemp -d /tmp/zfn_install.XXXXXX)"
prefix="$work/prefix"
trap 'rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH
cmake --install "$build" --prefix "$prefix" >/dev/null
export PKG_CONFIG_PATH="$(dirname "$(find "$prefix" -name zfnisdbt.pc)")"

# After the first call, which may hold packets of the start-up, every packet begins with its sync byte.
cat >"$work/host.c" <<'C'
#include <stdio.h>
#include <unistd.h>
#include <zfnisdbt.h>
static volatile long packets = 0, unsynced = 0;
static void OnStream(const uint8_t* data, int32_t length) {
  for (int32_t at = 0; at + 188 <= length; at += 188, ++packets) unsynced += packets >= 128 && data[at] != 0x47;
}
int main(void) {
  ZFISDBT_SetTSCallBack(OnStream);
  ZFISDBT_DebugCMD(5, 1);
  if (ZFISDBT_OpenDevice() != 1 || ZFISDBT_SetFrequency(473143) != 1) return 1;
  for (int i = 0; i < 200 && packets < 512; ++i) usleep(50000);
  ZFISDBT_CloseDevice();
  printf("host: %ld packets, %ld without sync\n", packets, unsynced);
  return packets >= 512 && unsynced == 0 ? 0 : 1;
}
C
# shellcheck disable=SC2046
cc -o "$work/host" "$work/host.c" $(pkg-config --cflags --libs zfnisdbt) -Wl,-rpath,"$(pkg-config --variable=libdir zfnisdbt)"
[ "$(pkg-config --modversion zfnisdbt)" = "$("$prefix/bin/zfnisdbt" --version | cut -d' ' -f2)" ]
ZFNISDBT_SIM_SPEED=3 "$work/host"

mkdir "$work/cmake_host"
printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(host C)' 'find_package(ZFNISDBT 0.1 REQUIRED)' \
  'add_executable(host ../host.c)' 'target_link_libraries(host PRIVATE ZFNISDBT::ZFNISDBT)' >"$work/cmake_host/CMakeLists.txt"
cmake -S "$work/cmake_host" -B "$work/cmake_host/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake_host/build" >/dev/null

"$prefix/bin/zfnisdbt" --help >/dev/null
[ -f "$prefix/share/man/man1/zfnisdbt.1" ]
if grep -rl -e "$(realpath "$build")" -e "$(realpath "$source")" "$prefix"; then
  echo "install: the files above hold a path of the build or the source tree" >&2
  exit 1
fi
echo "install: pkg-config and CMake hosts built, the simulator received through the installed library"
