# What the tests inside the sandbox share: waiting, and finding the processes that are here. Sourced.

within() {                                         # SECONDS COMMAND...
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    [ "$SECONDS" -ge "$end" ] && return 1
    sleep 0.05
  done
}
pid_of() {                                         # of the process here that runs this program
  local dir
  for dir in /proc/[0-9]*; do
    [ "$dir/exe" -ef "$1" ] && [ "$dir/root" -ef / ] && { printf '%s' "${dir#/proc/}"; return 0; }
  done 2> /dev/null
  return 1
}
gone() { ! pid_of "$1" > /dev/null; }
