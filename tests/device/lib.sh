# What the cases on the device share. A case ends with pass or fail; the first argument is the boot's number.
CASE=$(basename "$0" .sh)
DB=/tmp/vsd/0/wex/db
LOG=/var/log/messages

pass() { echo "CASE $CASE: pass"; exit 0; }
note() { echo "NOTE $*"; }
# figures WHAT LOAD TRIED RESULT: WHAT was done while LOAD went on, so often; a line for tests/faults/figures.py. Nothing was
# lost: a case that loses something fails before. No quotation marks and no vertical bars in the texts.
figures() {
  [ "$3" -gt 0 ] || fail "$1, $2: nothing was tried"
  note "$1, $2: $3 tried, 0 lost; $4"
  echo "FIGURES {\"device\": \"$CASE\", \"what\": \"$1\", \"load\": \"$2\", \"tried\": $3, \"lost\": 0, \"result\": \"$4\"}"
}
fail() {
  echo "CASE $CASE: FAIL $*"
  echo "--- processes"; ps -o pid,ppid,stat,args 2> /dev/null || ps
  echo "--- database"; ls -l $DB
  echo "--- messages"; tail -n 20 $LOG
  echo "--- running log"; cat /ovix/vsd/0/utils/wex/running_log* 2> /dev/null
  exit 1
}

# Seconds since power-on.
uptime_sec() { read -r up _ < /proc/uptime; echo "${up%.*}"; }

# What the case waits for, for process 1 to tell when the case does not end.
waits_for() { echo "$*" > /run/waits_for; }

# eventually SECONDS COMMAND...: until the command succeeds; its last failure otherwise. Longer where emulation is slow.
eventually() {
  waits_for "$*"
  local end=$(($(uptime_sec) + $1 * ${time_factor:-1}))
  shift
  until "$@"; do
    [ "$(uptime_sec)" -gt "$end" ] && return 1
    sleep 0.1
  done
}

# never SECONDS COMMAND...: true when the command fails all that time.
never() {
  waits_for "never: $*"
  local end=$(($(uptime_sec) + $1))
  shift
  while [ "$(uptime_sec)" -le "$end" ]; do
    "$@" && return 1
    sleep 0.2
  done
  return 0
}

check() {
  local what=$1
  shift
  "$@" || fail "$what"
}

# is TEXT TEXT WHAT: equality, with both sides in the message.
is() { [ "$1" = "$2" ] || fail "$3: is \"$1\", should be \"$2\""; }

# The daemon is the one that holds the lock file; a command-line call of the same program is not.
daemon() { tr -d '\0' < /tmp/wex/wex.pid 2> /dev/null; }
daemon_up() { [ -S /tmp/wex/.wex ] && [ -d "/proc/$(daemon)/task" ] && [ "$(ls "/proc/$(daemon)/task" | wc -l)" -ge 6 ]; }
daemon_up_other_than() { daemon_up && [ "$(daemon)" != "$1" ]; }

# pids_of COMMAND...: processes with exactly this command line. Builtins only, for it is asked often; the
# shell reads past the zero bytes between the words, so the words are compared without what parts them.
pids_of() {
  local dir line IFS=
  for dir in /proc/[0-9]*; do
    line=
    { read -r line < $dir/cmdline; } 2> /dev/null
    [ "$line" = "$*" ] && echo "${dir#/proc/}"
  done
}
one_runs() { [ "$(pids_of "$@" | wc -l)" = 1 ]; }
none_runs() { [ -z "$(pids_of "$@")" ]; }
# other_runs PID COMMAND...: one process of this command line, and not that one.
other_runs() {
  local old=$1 now
  shift
  now=$(pids_of "$@")
  [ "$(echo "$now" | grep -c .)" = 1 ] && [ "$now" != "$old" ]
}

# Starts a program as a child of process 1, away from this shell.
start() { (setsid "$@" < /dev/null > /dev/null 2>&1 &); }

# registered DOMAIN NAME PID: its database file is there and names it.
registered() { [ "$(head -n 1 "/tmp/vsd/$1/wex/db/$2.$3" 2> /dev/null)" = "$3" ]; }
one_registered() { local pid; pid=$(pids_of "$@"); [ -n "$pid" ] && registered 0 "$(basename "$1")" "$pid"; }

# start_service COMMAND...: started and registered; its pid is in $service. The answer of the daemon is
# waited for through the registration call itself: the program touches the file only afterwards.
start_service() {
  start "$@"
  eventually 20 ready "$@" || fail "$* did not register"
  service=$(pids_of "$@")
}
ready() { local pid; pid=$(pids_of "$@"); [ -n "$pid" ] && [ -e "/tmp/ready.$pid" ]; }

# Twenty services whose restarts are measured: the one whose file is /tmp/stamp.N writes the time of its main() there.
stamps_there() { [ "$(ls /tmp/stamp.*[0-9] 2> /dev/null | wc -l)" = 20 ]; }
start_stamps() {
  local n=0
  while [ $n -lt 20 ]; do
    n=$((n + 1))
    start /usr/bin/stamp /tmp/stamp.$n
  done
  check "20 services did not start" eventually 60 stamps_there
  sleep 2                                          # what they and the daemon do at first is over
}

# One byte of a file as a number.
byte() { od -An -tu1 -j "$2" -N 1 "$1" | tr -d ' '; }
ALIVE=/dev/shm/UTILS-wex-shm-001
alive_bit() { echo $(($(byte $ALIVE $((32 + $1 / 8))) >> ($1 % 8) & 1)); }
alive_sequence() { byte $ALIVE $((20513 + $1)); }

field() { sed -n "s/^$2:[[:space:]]*//p" "/proc/$1/status" | sed 's/[[:space:]]*$//'; }
mode() { stat -c %a "$1" 2> /dev/null; }

eventually 30 daemon_up || fail "wex did not come up"
