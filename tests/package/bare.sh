# A bare Debian 12, as debootstrap makes it with git and ca-certificates; sourced by tests. Kept in build/bare.

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

fetch_bare_root() {                                # CACHE MIRROR
  local proxy proxies=()
  for proxy in http https; do
    [ -z "$(proxy_of $proxy)" ] || proxies+=("${proxy}_proxy=$(proxy_of $proxy)")
  done
  env ${proxies[@]+"${proxies[@]}"} nice debootstrap --variant=minbase --include=git,ca-certificates bookworm "$1/root.new" "$2" \
    > "$1/debootstrap.log" 2>&1 < /dev/null && return
  tail -n 20 "$1/debootstrap.log" >&2
  ! grep -q -e 'Failed getting release file' -e "Couldn't download" "$1/debootstrap.log" ||
    printf '%s\n' "The mirror $2 does not answer (proxy: ${proxies[*]-none})." \
      "This test needs a mirror of Debian once: that of apt's sources, by apt's proxy." >&2
  return 1
}

# bare_root CHECKOUT: makes the root if it is not there yet, and prints where it is.
bare_root() {
  local cache=$1/build/bare
  mkdir -p "$cache"
  (
    flock 9
    [ -e "$cache/root/etc/debian_version" ] && exit 0
    rm -rf "$cache/root" "$cache/root.new"
    fetch_bare_root "$cache" "$(debian_mirror)" || exit 1
    rm -f "$cache"/root.new/var/cache/apt/archives/*.deb
    mv "$cache/root.new" "$cache/root"
  ) 9> "$cache/lock" || return 1
  printf '%s' "$cache/root"
}
