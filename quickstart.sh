#!/usr/bin/env bash
# Sets everything up, builds, and walks through the main job on a master server of its own: packages are made and
# signed, added, listed, shown and deleted. The machine itself is not touched. Safe to run again.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

scripts/install-dependencies
mkdir -p build
cmake --preset release >build/quickstart.log 2>&1 && cmake --build --preset release >>build/quickstart.log 2>&1 || {
    cat build/quickstart.log >&2
    exit 1
}

root=$PWD/.sandbox
rm -rf "$root"
scripts/sandbox --keep "$root" scripts/walkthrough

cat <<TEXT

That was a real master server, of your own. It is kept in .sandbox; go on by hand with
    scripts/sandbox --keep .sandbox bash
and, in there, \$QV_BIN/qvrepo -list and \$QV_BIN/sjapack --help.
TEXT
