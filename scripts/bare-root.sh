#!/bin/bash
# Makes an archive of a root folder: the machine's own distribution with nothing but the packages
# named and what they need, for scripts/in-root.sh. Does nothing if it is there. Needs root rights.
#
#   scripts/bare-root.sh TARGET.tar ARCHITECTURE[,ARCHITECTURE...] PACKAGE...
set -euo pipefail
cd "$(dirname "$0")/.."

target=$1
architectures=$2
shift 2
[ ! -e "$target" ] || exit 0

scripts/install-deps.sh mmdebstrap arch-test
# shellcheck source=/dev/null
release=$(. /etc/os-release && echo "$VERSION_CODENAME")
mkdir -p "$(dirname "$target")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/root"
# The release alone: its packages are of one version for all architectures at any time.
# shellcheck disable=SC2016  # apt-get fills the fields in
apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
  awk -v release="$release" '$2 == release && !seen[$0]++ { print "deb", $0 }' >"$work/sources.list"
# The root is made in memory. Its archive gets its name when it is whole.
# shellcheck disable=SC2016  # the inner shell expands it
if ! TMPDIR=$work/root unshare --mount sh -ec 'mount -t tmpfs tmpfs "$TMPDIR"; exec mmdebstrap "$@"' mmdebstrap \
  --mode=root --variant=apt --architectures="$architectures" --include="$(IFS=,; echo "$*")" \
  --aptopt='Acquire::Languages "none"' --dpkgopt=force-unsafe-io \
  "$release" "$target.part" "$work/sources.list" --format=tar >"$work/log" 2>&1; then
  cat "$work/log" >&2
  echo "bare-root.sh: cannot be had: a root for $architectures" >&2
  exit 69
fi
mv "$target.part" "$target"
