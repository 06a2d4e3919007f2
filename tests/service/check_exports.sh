#!/bin/sh
# check_exports.sh PROGRAM HEADER: PROGRAM's dynamic symbols hold the functions that HEADER exports, and no other.
set -eu
declared=$(sed -n 's/^EVENT_SERVICE_EXPORT .*[ *]\([A-Za-z]*\)(.*/\1/p' "$2" | LC_ALL=C sort)
exported=$(nm -D --defined-only "$1" | awk '$2 ~ /^[TtWwi]$/ { print $3 }' | LC_ALL=C sort)
[ -n "$declared" ] && [ "$exported" = "$declared" ] && exit 0
printf 'declared:\n%s\nexported:\n%s\n' "$declared" "$exported"
exit 1
