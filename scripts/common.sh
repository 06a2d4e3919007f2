# Sourced by the other scripts: where things are.
# shellcheck shell=bash

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)

die() {
  printf '%s\n' "$*" >&2
  exit 1
}

# The folder below which everything of a run lies: ./sandbox of the tree, or what EVENT_SERVICE_SANDBOX names. Its name
# becomes part of shell commands and of a socket's name, which limits characters and length; a tree whose own path
# breaks these limits gets a folder of the user's own in the temporary folder.
sandbox_folder() {
  local usable='^/[A-Za-z0-9/._-]{1,78}$' folder
  folder=$(realpath -m -- "${EVENT_SERVICE_SANDBOX:-$top/sandbox}")
  if [[ ! $folder =~ $usable ]]; then
    [[ -z ${EVENT_SERVICE_SANDBOX:-} ]] ||
      die "The sandbox folder $folder must have at most 79 characters, of A-Z a-z 0-9 / . _ - only."
    folder=/tmp/event-service-sandbox-$(id -u)
    [[ -d $folder ]] || mkdir -m 700 -- "$folder"
    [[ -O $folder && ! -L $folder ]] || die "$folder belongs to somebody else; name another in EVENT_SERVICE_SANDBOX."
  fi
  printf '%s\n' "$folder"
}

# Builds what ships. The person sees how far it is; what the tools say goes to a file, which an error names.
build_release() {
  local output=$top/build/release.output line
  mkdir -p "$top/build"
  if ! (
    cd "$top"
    cmake --preset release
    NINJA_STATUS='[%f of %t] ' cmake --build --preset release
  ) 2>&1 | tee "$output" | while read -r line; do
    [[ ! -t 1 || ! $line =~ ^\[([0-9]+\ of\ [0-9]+)\] ]] || printf '\rBuilding: %s ' "${BASH_REMATCH[1]}"
  done; then
    die "The build failed; everything it said is in $output:" "$(grep -m 5 -E 'error|FAILED|Error' "$output" || tail -n 5 "$output")"
  fi
  [[ ! -t 1 ]] || printf '\r\033[K'
}
