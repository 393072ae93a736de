# A bare Debian 12, as debootstrap makes it with git and ca-certificates; sourced by tests. Kept in build/bare.

# The mirror that this machine takes Debian from.
debian_mirror() {
  local uri
  uri=$(cat /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources 2> /dev/null |
    sed -nE 's/^(URIs:|deb( \[.*\])?) +(https?:[^ ]*\/debian)\/?( .*)?$/\3/p' | head -n 1)
  echo "${uri:-http://deb.debian.org/debian}"
}

# bare_root CHECKOUT: makes the root if it is not there yet, and prints where it is.
bare_root() {
  local cache=$1/build/bare
  mkdir -p "$cache"
  (
    flock 9
    [ -e "$cache/root/etc/debian_version" ] && exit 0
    rm -rf "$cache/root" "$cache/root.new"
    nice debootstrap --variant=minbase --include=git,ca-certificates bookworm "$cache/root.new" "$(debian_mirror)" \
      > "$cache/debootstrap.log" 2>&1 < /dev/null || { tail -n 20 "$cache/debootstrap.log" >&2; exit 1; }
    rm -f "$cache"/root.new/var/cache/apt/archives/*.deb
    mv "$cache/root.new" "$cache/root"
  ) 9> "$cache/lock" || return 1
  printf '%s' "$cache/root"
}
