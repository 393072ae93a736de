#!/usr/bin/env bash
# tools/why-failed blames the machine for cases that lost process events and failed in the end, and for no others.
set -u
. "$(dirname "$0")/lib.sh"
cat > "$work/log" <<'LOG'
 1/4 Test #11: Exits.AnExitIsSeen ..................***Failed    1.20 sec
sandbox: the daemon lost process events 3 times (ENOBUFS); the machine forked 5120 times a second
 1/4 Test #11: Exits.AnExitIsSeen ..................***Failed    1.20 sec
sandbox: the daemon lost process events 1 times (ENOBUFS); the machine forked 4711 times a second
 2/4 Test #12: Exits.ARestartIsMade ................***Failed    1.20 sec
sandbox: the daemon lost process events 0 times (ENOBUFS); the machine forked 12 times a second
 3/4 Test #13: Exits.FailedOnce ....................***Failed    0.20 sec
sandbox: the daemon lost process events 7 times (ENOBUFS); the machine forked 9 times a second
 4/4 Test #14: Exits.IsWell ........................   Passed    0.20 sec

50% tests passed, 2 tests failed out of 4

The following tests FAILED:
	 11 - Exits.AnExitIsSeen (Failed)
	 12 - Exits.ARestartIsMade (Failed)
LOG
said=$("$root/tools/why-failed" "$work/log" 9000 10) || complain "status $?"
grep -q '^The machine forked 900 times a second' <<< "$said" || complain "the forks are not told: $said"
grep -q '^    Exits.AnExitIsSeen: lost process events 1 times (ENOBUFS); the machine forked 4711 times a second$' <<< "$said" ||
  complain "the last try of the case that lost events is not told: $said"
! grep -q -e Exits.ARestartIsMade -e Exits.FailedOnce <<< "$said" || complain "another case is told: $said"
grep -q "only 'Exits\\\\.AnExitIsSeen'$" <<< "$said" || complain "no advice: $said"
sed -i 's/lost process events [0-9]* times/lost process events 0 times/' "$work/log"
said=$("$root/tools/why-failed" "$work/log" 90 0) || complain "status $?"
grep -q '^The machine forked 90 times' <<< "$said" && grep -q '^No failing case lost process events' <<< "$said" &&
  [ "$(wc -l <<< "$said")" = 2 ] || complain "without a reason not just what it can see: $said"
sed -i '/^The following tests FAILED:/,$d' "$work/log"
said=$("$root/tools/why-failed" "$work/log" 90 0) || complain "status $?"
[ "$said" = 'The machine forked 90 times a second during this run.' ] || complain "speaks of failures where there are none: $said"
finish
