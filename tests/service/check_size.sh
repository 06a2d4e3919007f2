#!/bin/sh
# check_size.sh PROGRAM MOST STRIP: PROGRAM, stripped, has at most so many bytes.
set -eu
stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
"$3" -o "$stripped" "$1"
size=$(stat -c %s "$stripped")
echo "$size bytes stripped, at most $2"
[ "$size" -le "$2" ]
