#!/bin/bash
# build_packages.sh ARCHITECTURE FOLDER: builds the Debian packages from a copy of the checkout, so that this one
# stays clean, and leaves them in FOLDER. Nothing is done when they are newer than all that they are made of.
set -eu -o pipefail
architecture=$1
mkdir -p "$2"
folder=$(cd "$2" && pwd)
cd "$(dirname "$0")/../.."

sources() {
    git ls-files -z --cached --others --exclude-standard -- \
        CMakeLists.txt LICENSE debian docs/man packaging platform src tools
}

newest=$(find "$folder" -maxdepth 1 -name "quarn_*_$architecture.deb" -printf '%p\n' | head -1)
if [ -n "$newest" ] && [ -z "$(sources | xargs -0 -I{} find {} -newer "$newest" -print -quit)" ]; then
    echo "$newest is up to date"
    exit 0
fi
tree=$folder/source-$architecture
rm -rf "$tree"
mkdir -p "$tree"
sources | xargs -0 cp -p --parents -t "$tree"
cd "$tree"
DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" DEB_BUILD_PROFILES="nocheck" \
    dpkg-buildpackage -a"$architecture" -b -us -uc
mv ../*"_$architecture".* "$folder/" 2>/dev/null || true
