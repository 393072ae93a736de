# Which Debian packages a step needs; sourced by scripts of bash. Sets missing.

# find_missing PACKAGE...: those that are not installed.
find_missing() {
  command -v dpkg-query > /dev/null ||
    { echo "This is no Debian; install the counterparts of: $*" >&2; return 1; }
  mapfile -t missing < <(comm -23 <(printf '%s\n' "$@" | sort -u) \
    <(dpkg-query -W -f '${db:Status-Status} ${Package}\n' "$@" 2> /dev/null | sed -n 's/^installed //p' | sort -u))
}

# need_packages PACKAGE...: installs those that are not there; without root it says what to run.
need_packages() {
  find_missing "$@" || return 1
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$EUID" -ne 0 ]; then
    echo "Missing: ${missing[*]}" >&2
    echo "Run once:  sudo apt-get update && sudo apt-get install -y --no-install-recommends ${missing[*]}" >&2
    return 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq < /dev/null &&
    apt-get install -y -qq --no-install-recommends "${missing[@]}" < /dev/null > /dev/null
}
