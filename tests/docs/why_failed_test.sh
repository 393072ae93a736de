#!/usr/bin/env bash
# tools/why-failed blames the machine for cases that lost process events and failed in the end, and for no others.
set -u
. "$(dirname "$0")/lib.sh"
cat > "$work/log" <<'LOG'
 1/4 Test #11: Road.AnExitIsSeen ..................***Failed    1.20 sec
wex_core: netlink recvfrom fail: No buffer space available
 1/4 Test #11: Road.AnExitIsSeen ..................***Failed    1.20 sec
 2/4 Test #12: Road.ARestartIsMade ................***Failed    1.20 sec
expected a pid
 3/4 Test #13: Road.FailedOnce ....................***Failed    0.20 sec
wex_core: netlink recvfrom fail: No buffer space available
 4/4 Test #14: Road.IsWell ........................   Passed    0.20 sec

50% tests passed, 2 tests failed out of 4

The following tests FAILED:
	 11 - Road.AnExitIsSeen (Failed)
	 12 - Road.ARestartIsMade (Failed)
LOG
said=$("$root/tools/why-failed" "$work/log" 9000 10) || complain "status $?"
grep -q '^The machine forked 900 times a second' <<< "$said" || complain "the forks are not told: $said"
grep -q 'say nothing about wex: Road.AnExitIsSeen$' <<< "$said" || complain "the case that lost events is not told alone: $said"
grep -q "only 'Road\\\\.AnExitIsSeen'$" <<< "$said" || complain "no advice: $said"
sed -i 's/No buffer space available/Interrupted system call/' "$work/log"
said=$("$root/tools/why-failed" "$work/log" 90 0) || complain "status $?"
grep -q '^The machine forked 90 times' <<< "$said" && grep -q '^No failing case has printed' <<< "$said" &&
  [ "$(wc -l <<< "$said")" = 2 ] || complain "without a reason not just what it can see: $said"
sed -i '/^The following tests FAILED:/,$d' "$work/log"
said=$("$root/tools/why-failed" "$work/log" 90 0) || complain "status $?"
[ "$said" = 'The machine forked 90 times a second during this run.' ] || complain "speaks of failures where there are none: $said"
finish
