#!/usr/bin/env bash
# usage: exported_names.sh LIBRARY LIST. Fails when the library exports other names than the list has: one that callers
# would lose, or one that nobody has decided to promise. After such a decision: exported_names.sh LIBRARY >LIST.
set -euo pipefail

# Of weak names only the classes' tables: the others are the C++ library's templates, and inline functions. Written as
# the types are on both word sizes, so that one list does. A sanitizer's own names are not the library's.
names=$(nm --dynamic --defined-only --demangle "$1" | sed -E 's/^[0-9a-f]+ //; s/\[abi:[a-z0-9]+\]//g' |
  awk '$1 !~ /^[WVu]$/ || $0 ~ /^V vtable for [A-Z][A-Za-z]*$/ { sub(/^. /, ""); print }' |
  grep -vE '^(__odr_asan|typeinfo )' |
  sed -E 's/\blong long\b/LONGLONG/g; s/\blong\b/int/g; s/\bunsigned int int\b/unsigned int/g' | LC_ALL=C sort -u)
if [ $# -lt 2 ]; then
  printf '%s\n' "$names"
  exit 0
fi
lost=$(LC_ALL=C comm -13 <(printf '%s\n' "$names") "$2")
unknown=$(LC_ALL=C comm -23 <(printf '%s\n' "$names") "$2")
[ -z "$lost" ] || printf 'no longer exported:\n%s\n' "$lost"
[ -z "$unknown" ] || printf 'exported, but not in %s:\n%s\n' "$2" "$unknown"
[ -z "$lost$unknown" ]
