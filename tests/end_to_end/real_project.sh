#!/usr/bin/env bash
# Builds a real C library of about a hundred files with `make -j8`, once as usual and once through a master, and
# compares every object file. Arguments: the folder of the programs, a folder to work in.
set -euo pipefail
programs=$1
scratch=$2
here=$(cd "$(dirname "$0")/../.." && pwd)
sources=$("$here/scripts/real-project" "$here/build/real-project")
rm -rf "$scratch"
mkdir -p "$scratch"
export PATH="$programs:$PATH" RV_COMMON_PATH="$scratch/common" KESTRUN_OBJECT_DIR="$scratch/objects"
dorn --settings update 2>/dev/null
sed -i 's/LoggingEnabled=bool:false/LoggingEnabled=bool:true/' "$RV_COMMON_PATH/DORN/Zelvo.ini"
for how in plain kestrun; do cp -r "$sources/." "$scratch/$how"; done

make -s -C "$scratch/plain/library" -j8 >/dev/null
dorn make -s -C "$scratch/kestrun/library" -j8 CC="kestrun gcc" >/dev/null

compared=0
for object in "$scratch"/plain/library/*.o; do
  cmp "$object" "$scratch/kestrun/library/$(basename "$object")"
  compared=$((compared + 1))
done
jobs=$(cat "$scratch"/common/DORN/Log/zelvo*.log | grep -c 'Build Job ended')
echo "$compared object files are the same; $jobs jobs went through the master"
((compared >= 50 && jobs >= compared))
left=$(find "$scratch/objects" -type f -not -name '.*' 2>/dev/null | wc -l)
((left == 0)) || { echo "$left named objects were left behind"; exit 1; }
rm -rf "$scratch"
