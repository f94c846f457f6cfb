#!/usr/bin/env bash
# Link resolution in a tree of many files (default 100,000): a file is linked, moved two folders away
# beside a same-named decoy of the same size, with 100 more same-named files spread over the tree (every
# tenth of the same size, so its checksum is read), and `vandrel open` finds it through the metadata index. The peer figure is `find -name` walking the same tree for the same name.
#   bench/links/resolve_moved_file.sh [FILES]        (VANDREL=path/to/vandrel, default build/bin/vandrel)
set -euo pipefail
cd "$(dirname "$0")/../.."
vandrel=$(realpath "${VANDREL:-build/bin/vandrel}")
files=${1:-100000}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export HOME=$work/home XDG_CONFIG_HOME=$work/home/.config XDG_CACHE_HOME=$work/home/.cache
export XDG_DATA_HOME=$work/home/.local/share XDG_RUNTIME_DIR=$work/run VANDREL_KEYCHAIN=file
unset DISPLAY WAYLAND_DISPLAY
mkdir -p "$XDG_CONFIG_HOME/vandrel" "$XDG_CACHE_HOME" "$XDG_DATA_HOME" "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"
tree=$HOME/tree
printf '[General]\nLinkServiceURL=https://links.example.test/l\nIndexedRoots=%s\n' "$tree" \
  >"$XDG_CONFIG_HOME/vandrel/vandrel.conf"

ms() { date +%s%3N; }

# 100 files a folder, 10 folders a parent; every folder also holds a "notes.txt", so common names have
# hundreds of same-named candidates too.
python3 - "$tree" "$files" <<'PY'
import os, sys
root, total = sys.argv[1], int(sys.argv[2])
for i in range(0, total, 100):
    folder = os.path.join(root, f"area{i // 10000:02d}", f"group{i // 1000:03d}", f"box{i // 100:04d}")
    os.makedirs(folder, exist_ok=True)
    for j in range(i, min(i + 99, total)):
        with open(os.path.join(folder, f"item{j:06d}.dat"), "wb") as f:
            f.write(b"x" * (j % 300))
    with open(os.path.join(folder, "notes.txt"), "wb") as f:
        f.write(b"notes %d" % i)
PY
mkdir -p "$tree/Users/ann/Documents"
head -c 250000 /dev/urandom >"$tree/Users/ann/Documents/report.bin"
count=$(find "$tree" -type f | wc -l)

start=$(ms)
"$vandrel" index rebuild >/dev/null
indexed=$(($(ms) - start))

link=$("$vandrel" link "$tree/Users/ann/Documents/report.bin")
mkdir -p "$tree/Users/Archive/2026"
mv "$tree/Users/ann/Documents/report.bin" "$tree/Users/Archive/2026/report.bin"
head -c 250000 /dev/urandom >"$tree/Users/ann/Documents/report.bin"   # same size, other content
for box in $(find "$tree" -mindepth 3 -maxdepth 3 -type d -name 'box*' | sort | awk 'NR % 10 == 1' | head -100); do
  size=$(( RANDOM % 10 == 0 ? 250000 : 1000 + RANDOM ))
  head -c "$size" /dev/urandom >"$box/report.bin"
done
decoys=$(find "$tree" -name report.bin | wc -l)

start=$(ms)
"$vandrel" open "$link" >"$work/revealed" 2>"$work/log"
opened=$(($(ms) - start))
start=$(ms)
find "$tree" -name report.bin >/dev/null
walked=$(($(ms) - start))

echo "tree:                  $count files, $decoys named report.bin after the move"
echo "index rebuild:         $indexed ms"
echo "link:                  $link"
echo "revealed:              $(cat "$work/revealed")"
echo "vandrel open:          $opened ms in all (process start, index load and catch-up, resolution)"
echo "resolution:            $(grep -o 'resolved in [0-9]* ms' "$work/log" | grep -o '[0-9]*') ms (query, candidates, checksums, scores)"
echo "find -name (peer):     $walked ms (names only: no scoring, no checksums)"
