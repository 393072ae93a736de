#!/usr/bin/env bash
# Tests signal other processes through send_signal.h only, which refuses the numbers that mean "all of them". Allowed beside
# it: signals to oneself, and signal 0, which asks and sends nothing.
set -u
tests=$(cd "$(dirname "$0")/.." && pwd)
found=$(grep -rnE '(^|[^a-zA-Z_"])(kill|killpg)\(|SYS_kill\b' "$tests" --include='*.cpp' --include='*.h' --exclude-dir=fuzz --exclude-dir=device |
  grep -vE '/harness/send_signal\.h:|kill\(getpid\(\),|kill\([^()]*, 0\)|: *//|//.*kill\(')
[ -z "$found" ] && { echo "all well"; exit 0; }
printf 'use send_signal() of tests/harness/send_signal.h:\n%s\n' "$found"
exit 1
