#!/usr/bin/env bash
# Builds the product and runs the service on the embedded defaults: build/bin is the program
# directory, its machine profile keeps every bit of machine state under build/local, and the embedded
# service manager stands in for systemd.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >/dev/null
cmake --build build -j"$(nproc)"

bin="$root/build/bin"
local="$root/build/local"
mkdir -p "$local"
if [ ! -f "$bin/config/machine.json" ]; then
    cat >"$bin/config/machine.json" <<JSON
{
  "registry": "$local/registry.db",
  "appData": "$local/appdata/",
  "logDir": "$local/log/",
  "runDir": "$local/run/",
  "serviceManager": "embedded",
  "systemRoot": "$local/root/",
  "dmiDir": "$local/dmi/",
  "watchdogDevice": "$local/WDT0001",
  "power": "record",
  "capabilities": {"plugins": ["BigData", "QDS", "DumpReport"]},
  "sessions": {"1": "$(id -un)"},
  "activeSession": 1,
  "ipcAllow": {"users": ["root", "$(id -un)"], "groups": ["qlb"]}
}
JSON
fi

if [ ! -x "$bin/qlbmainservice" ]; then
    echo "The program directory $bin holds:"
    ls "$bin"
    echo "The service executable is not built yet."
    exit 0
fi

"$bin/qlbmainservice" /install
"$bin/qlbmainservice" /startup
"$bin/qlbsc" query QLBMainService
cat <<TEXT

The service runs from $bin with the profile $bin/config/machine.json.
  status:     $bin/qlbsc query QLBMainService
  registry:   $bin/qlbreg query "HKLM\\SOFTWARE\\Tessalink" /s
  log:        $local/log/QuillbarService.log
  telemetry:  $local/appdata/telemetry/events.jsonl
  a message:  $bin/qlbctl --help
  stop:       $bin/qlbmainservice /stop
  remove:     $bin/qlbmainservice /uninstall
TEXT
