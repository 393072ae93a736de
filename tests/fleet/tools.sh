# Debian's Prometheus, its node exporter and its reader of OpenMetrics, unpacked and not installed; sourced by tests. Kept
# in build/fleet.

# fleet_tools CHECKOUT: fetches them if they are not there yet, and prints where they are.
fleet_tools() {
  local cache=$1/build/fleet
  mkdir -p "$cache"
  (
    flock 9
    [ -e "$cache/root/complete" ] && exit 0
    rm -rf "$cache/root" "$cache/packages" && mkdir -p "$cache/packages" && cd "$cache/packages" || exit 1
    get=(apt-get download -q prometheus prometheus-node-exporter python3-prometheus-client)
    "${get[@]}" > ../log 2>&1 || { apt-get update -q && "${get[@]}"; } > ../log 2>&1 ||
      { tail -n 5 ../log >&2; echo "The packages cannot be fetched; this test needs a mirror of Debian once." >&2; exit 1; }
    for package in *.deb; do dpkg -x "$package" ../root || exit 1; done
    touch ../root/complete
  ) 9> "$cache/lock" || return 1
  printf '%s' "$cache/root"
}
