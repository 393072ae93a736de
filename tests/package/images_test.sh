#!/usr/bin/env bash
# The packaging for Buildroot, Yocto and OpenWrt, as far as it can be checked without those trees: its own steps run for real
# with stand-ins for what the trees offer, and what they put into an image is compared with what "cmake --install" does.
# Argument: the directory in which package_test.sh has built.
set -u
here=$(cd "$(dirname "$0")" && pwd)
root=${here%/tests/package}
[ $# -eq 1 ] || { echo "usage: $0 DIRECTORY" >&2; exit 2; }
obj=$(cd "$1" && pwd)/package-release/source/obj
work=$(mktemp -d "${TMPDIR:-/tmp}/wex-images.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0
complain() { printf 'FAIL: %s\n' "$*"; failures=$((failures + 1)); }
same() {                                           # WHAT FILE FILE
  local difference
  difference=$(diff "$2" "$3" | grep '^[<>]' | tr '\n' ' ')
  [ -z "$difference" ] || complain "$1: $difference"
}
files() { (cd "$1" && find . ! -type d -o -type d -empty) | sed 's|^\.||' | sort; }
# hands_on SCRIPT REAL HOW...: the script calls the real one, which a stand-in takes the place of, with the word it was
# given. HOW is a command of sh with the script in $1 and the word in $2.
hands_on() {
  local script=$1 real=$2 word
  printf '#!/bin/sh\necho "$*" > %s\n' "$work/called-with" > "$work/stand-in"
  chmod 0755 "$work/stand-in"
  sed "s|$real|$work/stand-in|" "$script" > "$work/script"
  for word in start stop; do
    rm -f "$work/called-with"
    sh -c "$3" - "$work/script" $word
    [ "$(cat "$work/called-with")" = $word ] || complain "${script##*/} does not hand $word on to $real"
  done
}
version=$(sed -n 's/^project(wex VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")

# What wex puts into an image: without what only building and reading needs. The trees have one library directory.
DESTDIR=$work/all cmake --install "$obj" > "$work/log" 2>&1 || { cat "$work/log"; complain "no staging"; exit 1; }
libdir=$(dirname "$(find "$work/all/usr/lib" -name libwex.so)")
if [ "$libdir" != "$work/all/usr/lib" ]; then
  cp -a "$libdir/." "$work/all/usr/lib/" && rm -r "$libdir"
fi
cp -a "$work/all" "$work/image"
(cd "$work/image/usr" && rm -r include share/man share/doc share/bash-completion lib/pkgconfig lib/cmake lib/libwex.so)
mkdir -p "$work/image/etc/default" && cp "$root/packaging/init/wex.default" "$work/image/etc/default/wex"
files "$work/image" > "$work/wanted"
grep -q '^/usr/sbin/wex$' "$work/wanted" && grep -q '^/usr/bin/wexstat$' "$work/wanted" && [ "$(wc -l < "$work/wanted")" -ge 10 ] || complain "nothing was installed: $(cat "$work/wanted")"
sed -n 's/^\(CONFIG_.*\)=y/\1/p' "$root/packaging/kernel/wex.config" | sort > "$work/options"
# Syntax only: neither has a program to run with here.
sh -n "$root/packaging/init/wex.default" || complain "wex.default does not parse"

# ---- Buildroot: removes what only building needs, and starts /etc/init.d/S* ------------------------------------

tree=$root/packaging/buildroot
buildroot() { make -s -f "$here/images/buildroot.mk" BR2_EXTERNAL_WEX_PATH="$tree" TARGET_DIR="$work/buildroot" "$@"; }
cp -a "$work/image" "$work/buildroot" && rm -r "$work/buildroot/etc/default"
buildroot target || complain "Buildroot: the install steps fail"
files "$work/buildroot" > "$work/got"
{ cat "$work/wanted"; echo /etc/init.d/S05wex; } | sort > "$work/wanted-buildroot"
same "Buildroot's image has (>) or lacks (<)" "$work/wanted-buildroot" "$work/got"
[ -x "$work/buildroot/etc/init.d/S05wex" ] && sh -n "$work/buildroot/etc/init.d/S05wex" || complain "S05wex is not a script to run"
hands_on "$work/buildroot/etc/init.d/S05wex" /etc/init.d/wex 'exec sh "$1" "$2"'
buildroot kernel | sed -n 's/^enable //p' | sort > "$work/enabled"
same "Buildroot's kernel options and wex.config" "$work/options" "$work/enabled"
[ "$(buildroot version)" = "$version $tree/../../LICENSE" ] || complain "Buildroot: version or licence: $(buildroot version)"
grep -q '^name: WEX$' "$tree/external.desc" && grep -q '^desc: ' "$tree/external.desc" || complain "external.desc"
sed -n 's/^source "\$BR2_EXTERNAL_WEX_PATH\/\(.*\)"$/\1/p' "$tree/Config.in" | while read -r file; do
  grep -q '^config BR2_PACKAGE_WEX$' "$tree/$file" && echo found
done | grep -q found || complain "Config.in leads to no option"

# ---- Yocto: variables of the recipe, its own install step, every file in exactly one package ----------------------

recipe=$root/packaging/yocto/meta-wex/recipes-support/wex/wex_$version.bb
layer=$root/packaging/yocto/meta-wex/conf/layer.conf
[ -f "$recipe" ] || { complain "there is no recipe of version $version"; exit 1; }
# variables FILE: NAME<tab>OPERATOR<tab>VALUE a line, continued lines joined, functions left out; else a line "bad".
variables() {
  sed -e ':a' -e '/\\$/{N;s/\\\n//;ba' -e '}' "$1" | awk '
    /^[a-z_:]+\(\) \{$/ { inside = 1; next }
    inside { if ($0 == "}") inside = 0; next }
    /^(#|$|inherit )/ { next }
    match($0, /^[A-Za-z0-9_:${}-]+ *(\?\?=|\?=|:=|\+=|=\+|\.=|=) *"[^"]*"$/) {
      name = $0; sub(/ *(\?|:=|\+|\.|=).*/, "", name)
      if (name == $0) name = ""
      rest = substr($0, length(name) + 1)
      match(rest, /"/); operator = substr(rest, 1, RSTART - 1); gsub(/ /, "", operator)
      value = substr(rest, RSTART + 1); sub(/"$/, "", value)
      printf "%s\t%s\t%s\n", name, operator, value
      next
    }
    { print "bad\t\t" $0; bad = 1 }
    END { if (inside) print "bad\t\ta function without its end" }'
}
variables "$recipe" > "$work/variables"
variables "$layer" > "$work/layer"
for file in "$recipe" "$layer"; do
  variables "$file" | sed -n 's/^bad\t\t//p' | while IFS= read -r line; do echo "FAIL: ${file##*/} does not parse: $line"; done
done | tee "$work/bad"
[ ! -s "$work/bad" ] || failures=$((failures + 1))
value() { awk -F '\t' -v name="$2" '$1 == name { print $3 }' "$work/$1"; }
for name in SUMMARY LICENSE LIC_FILES_CHKSUM EXTERNALSRC SYSTEMD_SERVICE:'${PN}' INITSCRIPT_NAME FILES:libwex; do
  [ -n "$(value variables "$name")" ] || complain "the recipe does not set $name"
done
for name in BBPATH BBFILES BBFILE_COLLECTIONS BBFILE_PATTERN_wex LAYERSERIES_COMPAT_wex; do
  [ -n "$(value layer "$name")" ] || complain "the layer does not set $name"
done
grep -Eq '^inherit .*\<cmake\>.*\<systemd\>.*\<update-rc.d\>' "$recipe" || complain "the recipe does not inherit what installs and starts wex"
[ "$(value variables LIC_FILES_CHKSUM)" = "file://LICENSE;md5=$(md5sum < "$root/LICENSE" | cut -d' ' -f1)" ] || complain "the recipe's sum of LICENSE"
up=$(value variables EXTERNALSRC | sed -n "s/.*'THISDIR'), '\([./]*\)'.*/\1/p")
[ -n "$up" ] && [ "$(cd "$(dirname "$recipe")/$up" && pwd)" = "$root" ] || complain "EXTERNALSRC leads to another place: $up"
for option in $(value variables EXTRA_OECMAKE | grep -o 'WEX_[A-Z_]*'); do
  grep -q "^option($option \|^set($option " "$root/CMakeLists.txt" || complain "Yocto: CMake knows no $option"
done

image=$work/yocto
cp -a "$work/all" "$image"
place() {                                          # with the directories of a distribution whose /lib is not /usr/lib
  env D="$image" S="$root" PN=wex prefix=/usr sysconfdir=/etc libdir=/usr/lib nonarch_libdir=/usr/lib datadir=/usr/share \
    systemd_system_unitdir=/lib/systemd/system EXTENDPKGV="$version" "$@"
}
sed -n '/^do_install:append() {$/,/^}$/p' "$recipe" | sed '1d;$d' > "$work/step"
place sh -e "$work/step" || complain "the recipe's install step fails"
expanded() { place sh -c 'eval "printf %s \"$1\""' - "$(value variables "$1")"; }
in_package() {                                     # GLOB...: of the files on standard input, those that a package takes
  local file glob
  while IFS= read -r file; do
    for glob in "$@"; do
      # shellcheck disable=SC2254
      case $file in $glob | $glob/*) printf '%s\n' "$file"; break ;; esac
    done
  done
}
set -f
# The order in which files are handed out, and what OpenEmbedded takes by default.
files "$image" > "$work/left"
take() {                                           # PACKAGE GLOB...
  local package=$1
  shift
  in_package "$@" < "$work/left" > "$work/package-$package"
  comm -23 "$work/left" "$work/package-$package" > "$work/rest" && mv "$work/rest" "$work/left"
}
# shellcheck disable=SC2046
take libwex $(expanded FILES:libwex)
# shellcheck disable=SC2046
take dev /usr/include '/usr/lib/lib*.so' /usr/lib/pkgconfig $(expanded 'FILES:${PN}-dev')
take doc /usr/share/doc /usr/share/man
take completion /usr/share/bash-completion
# shellcheck disable=SC2046
take wex '/usr/bin/*' '/usr/sbin/*' '/usr/libexec/*' /etc '/usr/share/wex' $(expanded 'FILES:${PN}')
set +f
[ ! -s "$work/left" ] || complain "Yocto: in no package: $(tr '\n' ' ' < "$work/left")"
sort "$work/package-wex" "$work/package-libwex" > "$work/got"
sed 's|^/usr/lib/systemd/|/lib/systemd/|' "$work/wanted" | sort > "$work/wanted-yocto"
same "Yocto's packages have (>) or lack (<)" "$work/wanted-yocto" "$work/got"
grep -q "/lib/systemd/system/$(value variables 'SYSTEMD_SERVICE:${PN}')" "$work/package-wex" || complain "Yocto: no such unit"
grep -q "/etc/init.d/$(value variables INITSCRIPT_NAME)" "$work/package-wex" || complain "Yocto: no such start script"
[ "$(wc -l < "$work/package-libwex")" = 2 ] || complain "Yocto: libwex is $(cat "$work/package-libwex")"
cmp -s "$root/packaging/yocto/meta-wex/recipes-kernel/linux/files/wex.cfg" "$root/packaging/kernel/wex.config" || complain "Yocto: wex.cfg is another fragment"

# ---- OpenWrt: packages name their files one by one ---------------------------------------------------------------------

feed=$root/packaging/openwrt/wex
mkdir "$work/feeds" && ln -s "$feed" "$work/feeds/wex"
flat=$work/flat
cp -a "$work/all" "$flat"
mkdir -p "$work/owrt-build"
openwrt() {
  make -s -C "$work/feeds/wex" TOPDIR="$here/images/openwrt" INCLUDE_DIR="$here/images/openwrt" PKG_BUILD_DIR="$work/owrt-build" \
    PKG_INSTALL_DIR="$flat" TARGET="$work/openwrt" "$@"
}
openwrt prepare && openwrt packages dev || complain "OpenWrt: the steps fail"
[ -f "$work/owrt-build/CMakeLists.txt" ] && [ ! -e "$work/owrt-build/build" ] || complain "OpenWrt: the sources were not copied"
[ "$(openwrt version)" = "$version $root/LICENSE" ] || complain "OpenWrt: version or licence: $(openwrt version)"
{ files "$work/openwrt/wex"; files "$work/openwrt/libwex"; } | sort > "$work/got"
{ grep -vE '^/usr/lib/(systemd|tmpfiles\.d)/' "$work/wanted" | sed 's|^/usr/lib/sysctl.d/|/etc/sysctl.d/|'; echo /usr/libexec/wex/wex-sysvinit; } | sort > "$work/wanted-openwrt"
same "OpenWrt's packages have (>) or lack (<)" "$work/wanted-openwrt" "$work/got"
cmp -s "$work/openwrt/wex/usr/libexec/wex/wex-sysvinit" "$work/all/etc/init.d/wex" || complain "OpenWrt: another start script is called"
head -n 1 "$work/openwrt/wex/etc/init.d/wex" | grep -q '^#!/bin/sh /etc/rc.common$' && sh -n "$work/openwrt/wex/etc/init.d/wex" ||
  complain "OpenWrt: /etc/init.d/wex is no script of rc.common"
grep -Eq '^START=[0-9]+$' "$work/openwrt/wex/etc/init.d/wex" || complain "OpenWrt: nothing starts wex at boot"
hands_on "$work/openwrt/wex/etc/init.d/wex" /usr/libexec/wex/wex-sysvinit '. "$1" && "$2"'
cmp -s "$root/packaging/openwrt/wex.config" "$root/packaging/kernel/wex.config" || complain "OpenWrt: wex.config of the feed is another fragment"
[ -e "$work/openwrt/dev/usr/include/wex/wex.h" ] && [ -e "$work/openwrt/dev/usr/lib/libwex.so" ] || complain "OpenWrt: nothing to build services with"

[ $failures -eq 0 ] && echo "all well"
exit $((failures > 0))
