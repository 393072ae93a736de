# Bare Debian 12, as debootstrap makes it with a few packages more; sourced by tests. Kept in build/bare.

# The mirror that this machine takes Debian from.
debian_mirror() {
  local uri
  uri=$(cat /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources 2> /dev/null |
    sed -nE 's/^(URIs:|deb( \[.*\])?) +(https?:[^ ]*\/debian)\/?( .*)?$/\3/p' | head -n 1)
  echo "${uri:-http://deb.debian.org/debian}"
}

# proxy_of http|https: the proxy by which apt reaches its mirrors, or that of the environment; nothing without one.
proxy_of() {
  local value='' of_environment=$1_proxy
  eval "$(apt-config shell value "Acquire::$1::Proxy")"
  value=${value:-${!of_environment-}}
  [ "$value" = DIRECT ] || printf '%s' "$value"
}

fetch_bare_root() {                                # ROOT PACKAGES MIRROR
  local proxy proxies=()
  for proxy in http https; do
    [ -z "$(proxy_of $proxy)" ] || proxies+=("${proxy}_proxy=$(proxy_of $proxy)")
  done
  env ${proxies[@]+"${proxies[@]}"} nice debootstrap --variant=minbase "--include=$2" bookworm "$1" "$3" \
    > "$1.log" 2>&1 < /dev/null && return
  tail -n 20 "$1.log" >&2
  ! grep -q -e 'Failed getting release file' -e "Couldn't download" "$1.log" ||
    printf '%s\n' "The mirror $3 does not answer (proxy: ${proxies[*]-none})." \
      "This test needs a mirror of Debian once: that of apt's sources, by apt's proxy." >&2
  return 1
}

# kept_root CHECKOUT NAME PACKAGES: makes build/bare/NAME if it is not there yet, and prints where it is.
kept_root() {
  local cache=$1/build/bare root=$1/build/bare/$2
  mkdir -p "$cache"
  (
    flock 9
    [ -e "$root/etc/debian_version" ] && exit 0
    rm -rf "$root" "$root.new"
    fetch_bare_root "$root.new" "$3" "$(debian_mirror)" || exit 1
    rm -f "$root.new"/var/cache/apt/archives/*.deb
    mv "$root.new" "$root"
  ) 9> "$root.lock" || return 1
  printf '%s' "$root"
}

bare_root() { kept_root "$1" root git,ca-certificates; }               # CHECKOUT
machine_root() { kept_root "$1" machine systemd-sysv,linux-image-cloud-amd64; }      # CHECKOUT: boots as a machine of its own
