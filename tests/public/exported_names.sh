#!/usr/bin/env bash
# usage: exported_names.sh LIBRARY. Fails when the library exports what its public headers do not promise.
set -euo pipefail

# Weak names are the C++ library's templates, and classes' tables that every user of the class has.
names=$(nm --dynamic --defined-only --demangle "$1" | awk '$2 != "W" && $2 != "V" && $2 != "u"' | cut -d' ' -f3-)
private=$(grep -E '(^| |\()traiklofox::(foundation|kernel|files|registry|profiles|locale|system|sys)::' <<<"$names" |
  grep -vE '^(Event|Thread|Process|Handle|RWLock|MultiEvent)[:(]' || true)
if [ -n "$private" ]; then
  printf 'private names are exported:\n%s\n' "$private"
  exit 1
fi
[ "$(grep -c . <<<"$names")" -gt 100 ] || { echo "too few names; is this the library?"; exit 1; }
