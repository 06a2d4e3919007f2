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
