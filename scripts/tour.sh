# What ./run shows: one step a command, printed as a person would type it. Sourced; the caller sets KZV_HOME,
# KZV_SERVICE_URL, root and serviceUrl, and removes build/run-files.
# shellcheck shell=bash disable=SC2154

kzv() { "$root/build/release/bin/kzv" "$@"; }

knowsVerb() { kzv "$1" --help >/dev/null 2>&1; }

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

base64Url() { openssl base64 -A | tr '+/' '-_' | tr -d '='; }

# Prints the answer that a sign-in ends with (RFC 6749, with the proof key of RFC 7636). The service approves at
# once. What is secret goes through pipes, never over a command line.
signIn() {
  local verifier challenge location code client=kzv-tour answer=http://127.0.0.1/done
  verifier=$(openssl rand 48 | base64Url)
  challenge=$(printf %s "$verifier" | openssl dgst -sha256 -binary | base64Url)
  location=$(curl -sS --max-time 20 -o /dev/null -w '%{redirect_url}' --get "$serviceUrl/oauth2/authorize" \
    -d response_type=code -d "client_id=$client" -d "redirect_uri=$answer" \
    -d "code_challenge=$challenge" -d code_challenge_method=S256)
  [[ $location == "$answer?code="* ]] || return 1
  code=${location#*code=}
  printf 'grant_type=authorization_code&client_id=%s&redirect_uri=%s&code=%s&code_verifier=%s' \
    "$client" "$answer" "${code%%&*}" "$verifier" |
    curl -sS --fail --max-time 20 "$serviceUrl/oauth2/token" --data @-
}

linkSampleAccount() {
  # shellcheck disable=SC2016 # printed as typed
  printf '\n# Link the sample account; the sign-in page of this service says yes at once\n$ %s\n' \
    'kzv link --token-stdin < token'
  signIn | kzv link --token-stdin
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
    step "Delete the folder made above, with what is in it" rm /Tour &&
    step "The account's space" df
}

# The steps, in order; each may count on the ones before it. A new verb of kzv gets its step here.
tour() {
  cd "$root" &&
    linkSampleAccount &&
    step "The linked accounts" accounts &&
    step "A folder, with sizes and dates" ls -l / &&
    step "A folder with everything below it" ls -R /Documents &&
    step "The attributes of a file" stat "/Photos/Lake in the evening.jpg" &&
    transferSteps
}
