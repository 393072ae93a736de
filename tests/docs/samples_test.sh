#!/usr/bin/env bash
# Every fenced sample of the documents: C and C++ compile with warnings as errors, those with a main() link with libwex.so,
# those that register run under the daemon, and so does the one that limits a domain; shell samples are read by sh. Programs in
# manual pages compile, too. Arguments: libwex.so, wex.
set -u
. "$(dirname "$0")/lib.sh"
library=$1 daemon=$2
samples=$work/samples
mkdir "$samples"
# Beside the services: what is in the current directory is seen inside the sandbox.
cp -L "$daemon" "$work/wex" && cp -L "$library" "$work/libwex.so.1" || exit 1

# One file a sample, named after its document and line.
for page in "$root/README.md" "$root"/docs/*.md; do
  awk -v to="$samples/$(basename "$page" .md)" '
    /^```/ && !inside { inside = 1; kind = substr($0, 4); at = NR
      out = kind ~ /^(c|cpp|sh)$/ ? to "-" at "." kind : "/dev/null"; next }
    /^```/ { inside = 0; close(out); next }
    inside { print > out }' "$page"
done

for page in "$root"/docs/man/*; do
  awk -v to="$samples/$(basename "$page" .3)" '
    /^\.EX/ { inside = 1; out = to "-man-" NR ".c"; next }
    /^\.EE/ { inside = 0; close(out); next }
    inside { gsub(/\\e/, "\\"); gsub(/\\-/, "-"); print > out }' "$page"
done

build() {                                          # SAMPLE: an object, or a program beside it when it has a main()
  local sample=$1 compiler=(gcc -std=c99) program=${1%.*}
  [ "${sample##*.}" = cpp ] && compiler=(g++ -std=c++17)
  compiler+=(-D_GNU_SOURCE -Wall -Wextra -Werror -I "$root/qx-proc-wex" -I "$root/include")
  if grep -q '^int main(' "$sample"; then
    "${compiler[@]}" "$sample" -o "$program" "$work/libwex.so.1" -Wl,-rpath,"$work" -pthread
  else
    "${compiler[@]}" -c "$sample" -o "$program.o"
  fi || complain "${sample##*/} does not build"
}

services=() register='' limits='' scripts=() count=0
for sample in "$samples"/*; do
  count=$((count + 1))
  case $sample in
    *.sh)
      grep -q '^# /etc/cmdmap/busybox.sh' "$sample" && cp "$sample" "$work/busybox.sh"
      sh -n "$sample" || complain "${sample##*/} is no shell text"
      grep -q '^/usr/sbin/wex-register ' "$sample" && scripts+=("$sample") ;;
    *)
      build "$sample"
      [ -x "${sample%.*}" ] || continue
      case $sample in *-man-*) continue ;; esac
      grep -q 'set_vsd_mem' "$sample" && { limits=${sample%.*}; continue; }
      grep -q 'argv\[1\]' "$sample" && { register=${sample%.*}; continue; }
      grep -qE 'reg_[a-z_]*process_exit_action|WEX_SHELL_RESTART' "$sample" && services+=("${sample%.*}") ;;
  esac
done
[ $count -ge 8 ] || complain "only $count samples were found"
[ ${#services[@]} -ge 3 ] || complain "only ${#services[@]} services were found"

[ -n "$register" ] && [ ${#scripts[@]} -ge 2 ] || complain "the shell services were not found"
[ -n "$limits" ] || complain "the program that limits a domain was not found"

# The face for C++ promises the oldest of the language's versions that is still met, and no exceptions.
g++ -std=c++11 -pedantic -fno-exceptions -fno-rtti -Wall -Wextra -Werror -I "$root/qx-proc-wex" -I "$root/include" \
  -fsyntax-only "$root/examples/guarded.cpp" || complain "examples/wex.hpp is not C++11 without exceptions"

[ $failures -gt 0 ] && finish
cd "$work" || exit 1                               # seen inside, writes vanish
"$root/tools/sandbox" --leak-check -- bash "$root/tests/docs/run_samples.sh" "$work/wex" "$register" "$limits" "${scripts[*]}" "${services[@]}" ||
  complain "the services of the documents do not run as they say"
finish
