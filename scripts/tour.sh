# What ./run shows: one step a command, printed as a person would type it. Sourced; the caller sets KZV_HOME,
# KZV_SERVICE_URL, root and serviceUrl, removes build/run-files and unmounts build/run-mount.
# shellcheck shell=bash disable=SC2154

kzv() { "$root/build/release/bin/kzv" "$@"; }

# step COMMENT ARGUMENT...: prints the command, runs it; false when it fails.
step() {
  local comment=$1 argument shown="kzv"
  shift
  for argument in "$@"; do
    if [[ $argument =~ ^[A-Za-z0-9_./=-]+$ ]]; then shown+=" $argument"; else shown+=" '${argument//\'/\'\\\'\'}'"; fi
  done
  printf '\n# %s\n$ %s\n' "$comment" "$shown"
  kzv "$@"
}

# visitPage: stands in for the browser while kzv waits for its answer. Shows what kzv says, and opens the first page
# it names; the service approves at once and sends the browser back to kzv. The address goes to curl through a pipe,
# since command lines are public.
visitPage() {
  local line visited=
  while IFS= read -r -t 60 line; do
    printf '%s\n' "$line"
    [[ -z $visited && $line =~ http://[^[:space:]]+ ]] || continue
    visited=yes
    printf 'url = "%s"\n' "${BASH_REMATCH[0]}" | curl -sS -L --max-time 30 -o /dev/null --config - || return 1
  done
  [[ -n $visited ]]
}

linkSampleAccount() {
  printf '\n# %s\n$ %s\n' "Sign in and link the account (the page of this service says yes at once)" \
    "kzv link --no-browser"
  # A port of its own: the usual one may belong to a sign-in of the person who runs this.
  KZV_SIGN_IN_PORT=$((30000 + RANDOM % 20000)) timeout 90 "$root/build/release/bin/kzv" link --no-browser </dev/null 2>&1 | visitPage
}

# compare LOCAL LOCAL: shown as the command it is.
compare() {
  printf '\n# Both copies have the same bytes\n$ %s\n' "cmp $1 $2"
  cmp "$1" "$2"
}

# Local files are named relative to the root, as a person there would type them.
transferSteps() {
  local files=build/run-files
  rm -rf "$files" && mkdir -p "$files" &&
    step "Copy a picture out" get "/Photos/Screenshot 1.png" "$files/picture.png" &&
    step "Make a folder" mkdir /Tour &&
    step "Copy the picture in" put "$files/picture.png" /Tour/picture.png &&
    step "Move it" mv /Tour/picture.png /Tour/moved.png &&
    step "Copy it out again" get /Tour/moved.png "$files/again.png" &&
    compare "$files/picture.png" "$files/again.png" &&
    step "Copy a folder out" get /Projects "$files/Projects" &&
    step "Delete the folder made above, with what is in it" rm -f /Tour &&
    step "The account's space" df &&
    step "Whose account it is" info &&
    step "Record the account as the desktop client's, whose files can be shared" desktop --set "Sample User" &&
    step "A public link" share "/Photos/Lake in the evening.jpg" &&
    step "A preview of a picture" preview "/Photos/Lake in the evening.jpg" --out "$files/preview.png" &&
    step "The icon of a folder" icon /Photos --out "$files/icon.png"
}

# watchStep: another device writes into the folder that kzv watches.
watchStep() {
  local line watcher output
  printf '\n# Watch a folder while another device writes into it; Ctrl-C ends it\n$ %s\n' "kzv watch /Projects"
  exec {output}< <(exec env KZV_POLL_SECONDS=0.5 "$root/build/release/bin/kzv" watch /Projects 2>/dev/null)
  watcher=$!
  # Until the first look has been made there is nothing that a change could be a change to; so it goes on writing.
  for ((number = 1; number <= 30; ++number)); do
    curl -sS -o /dev/null "$serviceUrl/admin/write" -H 'Content-Type: application/json' \
      -d "{\"account\":\"sample.user@example.com\",\"path\":\"/Projects/from another device\",\"text\":\"$number\"}"
    IFS= read -r -t 1 line <&"$output" && break
  done
  kill -INT "$watcher" 2>/dev/null
  exec {output}<&-
  printf '%s\n' "${line:-nothing}"
  [[ -n $line ]]
}

# mountSteps: the folder is a mount of the stand-in's account; cleanUp takes it away if the tour is cut short.
mountSteps() {
  local folder=build/run-mount
  if ! [[ -c /dev/fuse && -r /dev/fuse && -w /dev/fuse ]]; then
    printf '\n# kzv mount is left out: /dev/fuse cannot be opened\n'
    return
  fi
  mkdir -p "$folder" && step "The account as a folder of this computer" mount "$folder" || return
  printf '\n# Any program sees it\n$ %s\n' "ls -l $folder/Photos && cp README.md $folder"
  ls -l "$folder/Photos" && cp README.md "$folder" && step "Unmount it" umount "$folder" && rmdir "$folder" &&
    step "What was copied there is in the account" ls -l /README.md
}

# The steps, in order; each may count on the ones before it. A new verb of kzv gets its step here.
tour() {
  cd "$root" &&
    linkSampleAccount &&
    step "The linked accounts" accounts &&
    step "A folder, with sizes and dates" ls -l / &&
    step "A folder with everything below it" ls -R /Documents &&
    step "The attributes of a file" stat "/Photos/Lake in the evening.jpg" &&
    transferSteps &&
    watchStep &&
    mountSteps
}

# stayInShell: the person goes on alone. Ctrl-C is the shell's matter as long as it runs.
stayInShell() {
  cat <<'END'

# The rest is yours: the same commands without "kzv" before them. For instance
#   cd Photos                        (Tab completes names)
#   ls -l
#   preview "Lake in the evening.jpg" --out build/lake.png
#   put README.md /
#   rm /README.md
#   help
# Ctrl-D ends it; then the local service and its account are gone.
$ kzv shell
END
  trap : INT
  kzv shell || true
  trap 'exit 130' INT
}
