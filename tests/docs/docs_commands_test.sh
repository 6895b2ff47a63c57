#!/usr/bin/env bash
# Runs every command block of docs/*.md that starts with
# "# runs in a test namespace", line by line, in a namespace made here, so
# the documentation cannot drift from the program.
#   docs_commands_test.sh <repository root> <directory of nti>
set -euo pipefail
root=$1
bin_dir=$2
ns="nti-docs-$$"
state=$(mktemp -d)
cleanup() {
  ip netns del "$ns" 2>/dev/null || true
  rm -rf "$state"
}
trap cleanup EXIT
ip netns add "$ns"
ip -n "$ns" link set lo up

commands=$(awk '
  /^```/ { if (in_block) { in_block = 0; runnable = 0 } else { in_block = 1; first = 1 }; next }
  in_block && first { first = 0; if ($0 == "# runs in a test namespace") { runnable = 1; next } }
  in_block && runnable && NF { print }
' "$root"/docs/*.md)

if [ -z "$commands" ]; then
  echo "no runnable command found in docs/" >&2
  exit 1
fi
count=0
while IFS= read -r line; do
  count=$((count + 1))
  echo "== $line"
  if ! ip netns exec "$ns" env PATH="$bin_dir:$PATH" NTI_DOC_STATE="$state" \
      timeout 30 bash -c "$line" >/tmp/nti-docs-out.$$ 2>&1; then
    cat /tmp/nti-docs-out.$$
    rm -f /tmp/nti-docs-out.$$
    echo "documented command failed: $line" >&2
    exit 1
  fi
done <<< "$commands"
rm -f /tmp/nti-docs-out.$$
echo "$count documented commands ran"
