# What limits the time of a case on the device is stopped, so that process 1 waits for ever: tools/device ends the machine, and
# the kernel has told before where it stands.
# stands-still: 1
# mostly-waits: 1
# seconds: 60
# wall-slack: 60
. /test/lib.sh
waits_for "the end of a boot that stands still"
kill -STOP $(pidof timeout) || fail "nothing limits the time of a case"
sleep 1000
fail "the machine was not ended"
