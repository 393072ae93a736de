# Domains: made, filled, measured, limited, and taken down without a restart; a restart stays inside.
# seconds: 120
. /test/lib.sh
mkdir -p /etc/rc.d/rc.vsd
cat > /etc/rc.d/rc.vsd/S10service <<'S'
#!/bin/sh
echo "$1 $TMPDIR $QX_CFG_DIR $OVIX_DIR $DATA_OVIX_DIR" >> /tmp/started
(setsid /usr/bin/service --tag in-${TMPDIR##*/} < /dev/null > /dev/null 2>&1 &)
sleep 1
S
chmod +x /etc/rc.d/rc.vsd/S10service
cp /usr/bin/service /sbin/greedy

/sbin/wex -c 2
is $? 0 "status of wex -c 2"
is "$(cat /tmp/started)" "vsd /tmp/vsd/1 /qx_cfg/vsd/1 /ovix/vsd/1 /data/.ovix/vsd/1
vsd /tmp/vsd/2 /qx_cfg/vsd/2 /ovix/vsd/2 /data/.ovix/vsd/2" "environment of the start scripts"
check "no start time" grep -q '^[0-9]' /tmp/vsd/2/starttime
check "the service of domain 2 did not register" eventually 20 ready /usr/bin/service --tag in-2
inner=$(pids_of /usr/bin/service --tag in-2)
is "$(field $inner Groups)" 3200 "groups of the service in domain 2"
check "no flag file of the service in domain 2" eventually 10 [ -e /tmp/vsd/2/wex/$inner ]
check "no database file in domain 2" registered 2 service $inner

/sbin/wex add greedy 2
check "wex add started nothing" eventually 20 one_runs /sbin/greedy
greedy=$(pids_of /sbin/greedy)
check "what was added did not register" eventually 20 ready /sbin/greedy
is "$(field $greedy Groups)" 3200 "groups of what was added"
check "no flag file of what was added" eventually 5 [ -e /tmp/vsd/2/wex/$greedy ]

kill -KILL $inner
check "not restarted inside its domain" eventually 15 other_runs $inner /usr/bin/service --tag in-2
again=$(pids_of /usr/bin/service --tag in-2)
ready_again() { [ -e /tmp/ready.$again ]; }
check "the restarted service did not register" eventually 15 ready_again
is "$(field $again Groups)" 3200 "groups after the restart"
is "$(readlink /proc/$again/cwd)" /data/var/run/vsd/2 "working directory after the restart"
is "$(tr '\0' '\n' < /proc/$again/environ | grep ^TMPDIR=)" TMPDIR=/tmp/vsd/2 "TMPDIR after the restart"
check "no flag file of the restarted service" eventually 5 [ -e /tmp/vsd/2/wex/$again ]
check "the flag file of the dead service stayed" eventually 5 [ ! -e /tmp/vsd/2/wex/$inner ]
is "$(field "$(pids_of /usr/bin/service --tag in-1)" Groups)" 3100 "groups of the service in domain 1"

# 24 MiB against a limit of 8: the largest process goes, and comes back in its domain.
/usr/bin/domain groups 2 8192 5 || fail "the control groups could not be set"
is "$(cat /memory/vsd_2/memory.limit_in_bytes)" 8388608 "memory limit"
is "$(cat /memory/vsd_2/memory.soft_limit_in_bytes)" 8388608 "soft memory limit"
is "$(cat /cpu/vsd_2/cpu.shares)" 512 "CPU weight"
for pid in $again $greedy; do
  check "pid $pid is not in the memory group" grep -qx $pid /memory/vsd_2/tasks
  check "pid $pid is not in the CPU group" grep -qx $pid /cpu/vsd_2/tasks
done
measured=$(/usr/bin/domain measure 2)
is "${measured#* }" 8192 "limit as measured"
check "the largest process of a domain above its limit lives on" eventually 15 other_runs $greedy /sbin/greedy
is "$(field "$(pids_of /sbin/greedy)" Groups)" 3200 "groups after the limit was enforced"
is "$(pids_of /usr/bin/service --tag in-2)" $again "the smaller process of the domain"
note "domain 2 measured: use and limit in KiB: $measured"

kill -TERM $again
check "the flag file of a stopped service stayed" eventually 10 [ ! -e /tmp/vsd/2/wex/$again ]
check "a service stopped on purpose came back" never 2 one_runs /usr/bin/service --tag in-2

/sbin/wex -d 1
is $? 0 "status of wex -d 1"
check "processes of domain 1 live on" none_runs /usr/bin/service --tag in-1
for path in /tmp/vsd/1 /etc/vsd/1 /qx_cfg/vsd/1 /ovix/vsd/1 /data/.ovix/vsd/1 /data/var/run/vsd/1; do
  check "$path is still there" [ ! -e $path ]
done
check "domain 2 went with domain 1" one_runs /sbin/greedy
wex=$(pids_of /sbin/greedy)
kill -KILL $wex
check "nothing is restarted after a take-down" eventually 15 other_runs $wex /sbin/greedy
pass
