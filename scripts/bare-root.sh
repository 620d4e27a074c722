#!/bin/bash
# Makes a root folder, or an archive of one, of the machine's own distribution with nothing but the
# packages named and what they need. Does nothing if it is there. Needs root rights.
#
#   scripts/bare-root.sh TARGET[.tar] ARCHITECTURE[,ARCHITECTURE...] PACKAGE...
set -euo pipefail
cd "$(dirname "$0")/.."

target=$1
architectures=$2
shift 2
[ ! -e "$target" ] || exit 0

scripts/install-deps.sh mmdebstrap arch-test
# shellcheck source=/dev/null
release=$(. /etc/os-release && echo "$VERSION_CODENAME")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck disable=SC2016  # apt-get fills the fields in
# The release alone: its packages are of one version for all architectures at any time.
apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
  awk -v release="$release" '$2 == release && !seen[$0]++ { print "deb", $0 }' >"$work/sources.list"
mkdir -p "$(dirname "$target")"
extension=${target##*.}
[ "$extension" = tar ] || extension=
# Nothing is left under the name of the target unless it is whole.
made=$target.new${extension:+.tar}
rm -rf "$made"
if ! mmdebstrap --quiet --mode=root --variant=apt --architectures="$architectures" \
  --include="$(IFS=,; echo "$*")" --aptopt='Acquire::Languages "none"' \
  --dpkgopt=force-unsafe-io "$release" "$made" "$work/sources.list" >"$work/log" 2>&1; then
  cat "$work/log" >&2
  echo "bare-root.sh: cannot be had: a root for $architectures" >&2
  exit 69
fi
mv "$made" "$target"
