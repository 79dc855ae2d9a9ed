#!/usr/bin/env bash
# The shared library exports exactly the functions its public header declares,
# with C linkage: nothing more, nothing less.
set -euo pipefail
lib=$1
header=$2
declared=$(grep -E '^ZR_API ' "$header" | sed -E 's/^[^(]*[ *]([A-Za-z_][A-Za-z_0-9]*)\(.*/\1/' | sort -u)
exported=$(nm -D --defined-only "$lib" | awk '{print $3}' | sort -u)
if [ "$declared" != "$exported" ]; then
  echo "declared but not exported:"; comm -23 <(echo "$declared") <(echo "$exported")
  echo "exported but not declared:"; comm -13 <(echo "$declared") <(echo "$exported")
  exit 1
fi
echo "$(echo "$declared" | wc -l) exports match the header"
