#!/usr/bin/env bash
# On the emulated machine: what systemd makes of the packaged unit. Boot 1 installs wex and tries everything without strict mode,
# boot 2 finds wex enabled and strict and tries everything again, boot 3 switches off in good order. Started by wex-trial.service.
set -u
. /trial/lib_inside.sh
[ "$(cat /proc/1/comm)" = systemd ] && [ -e /trial/files ] || { echo "start me through systemd_test.sh" >&2; exit 1; }
boot=$(sed -n 's/.* trial=\([0-9]\).*/\1/p' /proc/cmdline)
database=/tmp/vsd/0/wex/db running_log=/ovix/vsd/0/utils/wex/running_log1 unit=/lib/systemd/system/wex.service
drop_in=/etc/systemd/system/wex.service.d

ok() { printf 'TRIAL ok: %s\n' "$*"; }
fail() {
  printf 'TRIAL FAIL: %s\n' "$*"
  systemctl status --no-pager --full --lines=0 wex root-service@a root-service@b user-service
  journalctl --no-pager --lines=40 --output=short-monotonic
  tail -n 20 $running_log
  systemctl poweroff --force --force
  exit 1
}
is() { [ "$1" = "$2" ] || fail "$3: $1, not $2"; }  # GOT WANTED WHAT

# ---- The daemon ------------------------------------------------------------------------------------------------

shown() { systemctl show --property "$1" --value wex; }
answers() { daemon=$(pid_of /usr/sbin/wex) && [ "$daemon" != "${1-}" ] && [ "$(shown MainPID)" = "$daemon" ] && wexstat --check > /dev/null; }
idle() { [ "$(shown ActiveState)/$(shown SubState)" = inactive/dead ] && gone /usr/sbin/wex; }
ready() {                                          # WHAT [OLD-PID]
  within 30 answers "${2-}" || fail "$1: wex is not ready: $(wexstat --check 2>&1)"
  is "$(shown ActiveState)/$(shown SubState)" active/running "$1"
}
# A process that systemd has to kill at a stop takes 90 s.
stop_wex() {
  local start=$SECONDS
  "$@" || fail "$* fails"
  idle || fail "after $*, wex is $(shown ActiveState)/$(shown SubState), pid $(pid_of /usr/sbin/wex)"
  [ $((SECONDS - start)) -le 40 ] || fail "$* takes $((SECONDS - start)) s"
  is "$(shown Result)" success "the end by $*"
}

# ---- Services --------------------------------------------------------------------------------------------------

registered() { local pid; pid=$(pid_of "/usr/sbin/$1") && [ "$pid" != "${2-}" ] && [ -e $database/wexrun."$pid" ]; }   # NAME [OLD-PID]
facts() { sed -nE "s/^$2:[[:space:]]*//p" "/proc/$1/status" | tr '\t' ' ' | sed 's/ *$//'; }      # PID FIELD
start_service() {                                  # NAME UNIT
  systemctl start "$2" || fail "$2 does not start"
  within 30 registered "$1" || fail "$1 was not registered"
}
who() { echo "$(facts "$1" Uid), $(facts "$1" Gid), $(facts "$1" Groups)"; }      # PID
# comes_back NAME WHAT OLD-PID WHO-IT-WAS
comes_back() {
  within 30 registered "$1" "$3" || fail "$2: $1 does not come back"
  is "$(who "$(pid_of "/usr/sbin/$1")")" "$4" "$2: who $1 is"
}
kill_service() {                                   # NAME WHAT
  local old was
  old=$(pid_of "/usr/sbin/$1") || fail "$2: $1 does not run"
  was=$(who "$old")
  kill -KILL "$old"
  comes_back "$1" "$2" "$old" "$was"
}
# What a process has of its starter: compared between a life that systemd started and one that wex did.
rights() {
  local field
  for field in Uid Gid Groups CapInh CapPrm CapEff CapBnd CapAmb NoNewPrivs Seccomp; do echo "$field $(facts "$1" $field)"; done
  for field in mnt net pid ipc uts user cgroup; do readlink "/proc/$1/ns/$field"; done
  echo "oom $(cat "/proc/$1/oom_score_adj") policy $(cut -d' ' -f 41 "/proc/$1/stat")"
}
cgroup() { sed -n 's/^0:://p' "/proc/$1/cgroup"; }
comes_back_as_it_was() {                           # NAME UNIT: with all that it had, among wex's processes and out of its unit's reach
  local first second again
  start_service "$1" "$2"
  first=$(rights "$(pid_of "/usr/sbin/$1")")
  is "$(cgroup "$(pid_of "/usr/sbin/$1")")" "$(systemctl show --property ControlGroup --value "$2")" "where systemd starts $1"
  kill_service "$1" "killed"
  again=$(pid_of "/usr/sbin/$1")
  second=$(rights "$again")
  [ "$first" = "$second" ] || fail "$1 comes back with other rights: $(diff <(echo "$first") <(echo "$second"))"
  is "$(cgroup "$again")" /system.slice/wex.service "where wex starts $1"
  is "$(systemctl show --property ActiveState --value "$2")" failed "$2, whose process was killed"
  systemctl stop "$2" || fail "systemctl stop $2"
  is "$(pid_of "/usr/sbin/$1")" "$again" "the process of $1 after its unit was stopped"
}
all_live() { for name in $services; do [ "$(pid_of "/usr/sbin/$name")" = "$(cat "/trial/pid.$name")" ] || { echo "$name"; return 1; }; done; }
note_pids() { for name in $services; do pid_of "/usr/sbin/$name" > "/trial/pid.$name"; done; }

# ---- What is tried in both modes -------------------------------------------------------------------------------

# Every line of the unit is seen in what systemd goes by. A line that this does not know is one that it does not try.
unit_took_effect() {
  local option value
  local -A all=()
  while IFS='=' read -r option value; do all[$option]=$value; done < <(systemctl show wex)
  while IFS='=' read -r option value; do
    case $option in
      '' | '#'* | '['* | Description | WantedBy | ExecStart) continue ;;
      RestartSec) is "${all[RestartUSec]-}" "${value}s" $option ;;
      StartLimitIntervalSec) is "${all[StartLimitIntervalUSec]-}" "$value" $option ;;
      KillSignal) is "${all[KillSignal]-}" "$(kill -l "$value")" $option ;;
      After) [[ " ${all[After]-} " == *" $value "* ]] || fail "wex does not come after $value" ;;
      Type | Environment | LimitCORE | Restart | KillMode | OOMScoreAdjust | OOMPolicy | TasksMax) is "${all[$option]-}" "$value" $option ;;
      *) fail "$unit has a line that nothing tries: $option=$value" ;;
    esac
  done < $unit
  is "${all[NeedDaemonReload]-}" no "the unit that systemd knows"
  ! journalctl --no-pager | grep -E '(wex\.service|wex-least\.conf|least\.conf):[0-9]+:' || fail "systemd does not like a line"
}

started_as_told() {
  is "$(sed -nE 's/^Max core file size +//p' "/proc/$daemon/limits" | tr -s ' ')" 'unlimited unlimited bytes ' "limit of core dumps"
  is "$(cat "/proc/$daemon/oom_score_adj")" -1000 "score of the low-memory killer"
  tr '\0' '\n' < "/proc/$daemon/environ" | grep -qx 'DATA_OVIX_DIR=/data/.ovix/vsd/0' || fail "wex has no place for its switches"
  is "$(cat "/sys/fs/cgroup$(cgroup "$daemon")/pids.max")" max "tasks that wex and its services may have"
  for space in mnt net pid ipc uts user cgroup; do
    is "$(readlink "/proc/$daemon/ns/$space")" "$(readlink "/proc/1/ns/$space")" "namespace of wex"
  done
  is "$(facts "$daemon" NoNewPrivs) $(facts "$daemon" Seccomp)" '0 0' "rights that can be lost"
}

# capabilities_are WHAT MASK: all sets of the daemon, of which two are always empty.
capabilities_are() {
  for set in CapPrm CapEff CapBnd; do is "$(facts "$daemon" $set)" "$2" "$1: $set"; done
  for set in CapInh CapAmb; do is "$(facts "$daemon" $set)" 0000000000000000 "$1: $set"; done
}
# The mask of the names in the guide; setpriv names them in the order of their numbers.
mask_of_guide() {
  local number=0 mask=0 name
  for name in $(setpriv --list-caps); do
    ! grep -qx "$name" /trial/capabilities || mask=$((mask | 1 << number))
    number=$((number + 1))
  done
  printf '%016x' $mask
}

# Those of $die_alone also die while wex is away.
services_outlive_wex() {
  local old=$daemon count
  note_pids
  timeout 20 systemctl restart wex || fail "systemctl restart wex takes more than 20 s, or fails"
  ready "systemctl restart wex" "$old"
  all_live || fail "systemctl restart wex ended a service"
  for name in $services; do kill_service $name "after systemctl restart wex"; done
  ok "systemctl restart wex: services live on, and are taken over"

  note_pids
  old=$daemon count=$(shown NRestarts)
  kill -KILL "$daemon"
  ready "killed" "$old"
  is "$(shown NRestarts)" $((count + 1)) "starts by systemd after wex was killed"
  all_live || fail "the end of wex ended a service"
  for name in $services; do kill_service $name "after wex was killed"; done
  ok "killed wex is started again, services live on, and are taken over"

  note_pids
  stop_wex systemctl stop wex
  all_live || fail "systemctl stop wex ended a service"
  local -A was=()
  for name in $die_alone; do
    was[$name]=$(who "$(cat "/trial/pid.$name")")
    kill -KILL "$(cat "/trial/pid.$name")"
    within 10 gone "/usr/sbin/$name" || fail "$name outlives SIGKILL"
  done
  systemctl start wex || fail "systemctl start wex beside services of the former"
  ready "started beside services of the former"
  journalctl --no-pager --unit wex | grep -q 'Found left-over process .* Ignoring' || fail "systemd does not speak of left-over processes"
  for name in $die_alone; do comes_back "$name" "dead while wex was away" "$(cat "/trial/pid.$name")" "${was[$name]}"; done
  services=root-service-b all_live || fail "systemctl start wex ended a service"
  ok "systemctl stop wex ends wex alone, and the next start finds what died meanwhile"

  old=$daemon
  stop_wex /etc/init.d/wex stop
  /etc/init.d/wex start || fail "/etc/init.d/wex start"
  ready "/etc/init.d/wex start" "$old"
  ok "/etc/init.d/wex hands over to systemd"
}

# With the capabilities of the guide and no others, and back. Services that wex starts again have no others either. In strict
# mode wex also makes root's what a user has taken.
with_least_capabilities() {
  local mask old=$daemon pid
  mask=$(mask_of_guide)
  mkdir -p $drop_in
  cp /usr/share/wex/wex-least.conf $drop_in/least.conf
  [ ! -e /etc/wex/strict ] || chown service $database
  systemctl daemon-reload && systemctl restart wex || fail "systemctl restart wex with wex-least.conf"
  ready "with wex-least.conf" "$old"
  is "$(stat -c %U $database)" root "with wex-least.conf: whose $database is"
  unit_took_effect
  capabilities_are "with wex-least.conf" "$mask"
  for name in $services; do
    kill_service $name "with wex-least.conf"
    pid=$(pid_of /usr/sbin/$name)
    case $name in
      root-*) is "$(facts "$pid" Uid) $(facts "$pid" CapEff)" "0 0 0 0 $mask" "$name with wex-least.conf" ;;
      user-*) is "$(facts "$pid" Uid) $(facts "$pid" Gid) $(facts "$pid" Groups) $(facts "$pid" CapEff)" \
        "1234 1234 1234 1234 1234 1234 1234 1234 100 1234 0000000000000000" "$name with wex-least.conf" ;;
    esac
  done
  ok "with wex-least.conf wex has the capabilities of the guide and no others ($mask), and restarts services"
}

# The daemon's files, but those that a boot like this leads to none of: a failed fork, a hang of ten minutes, a second disk, what
# is written when another file is full, and what has another name as soon as it is whole. files_are_there REGEX: without these besides.
files_are_there() {
  local path
  touch /etc/debug_log
  kill_service root-service-a "with event logs"
  rm /etc/debug_log
  while IFS= read -r path; do
    [ -e "$path" ] || fail "docs/files.md has $path, which wex did not make"
  done < <(grep -vE "^/tmp/wex/forkfile\$|^/tmp/wex/wex\.log2\$|^/data/\.wex_(hang|notify)|^/data2/|log2\$|\.old\$|^/run/wex/begun\$|$1" /trial/files)
  ok "wex can make its files"
}

# Where systemd clears /tmp of what nobody has touched for a while, wex's files stay. What is younger than they are has gone.
cleared() { systemd-tmpfiles --clean && [ ! -e /tmp/of-others ]; }
clearing_leaves_files() {
  local path
  echo 'q /tmp 1777 root root 1s' > /etc/tmpfiles.d/tmp.conf
  touch /tmp/of-others
  within 30 cleared || fail "systemd does not clear /tmp"
  while IFS= read -r path; do
    [ -e "$path" ] || fail "systemd has cleared $path away"
  done < <(grep '^/tmp/' /trial/files | grep -vE 'forkfile$|wex\.log[12]$')
  for name in $services; do [ -e $database/wexrun."$(pid_of /usr/sbin/$name)" ] || fail "systemd has cleared $name's registration away"; done
  ok "wex's files stay where systemd clears /tmp"
}

# Two programs of root's that dump core are a burst here. The machine restarts; records are read in the next boot.
restart_machine() {
  local old
  echo '900 2' > /etc/wex_config
  echo 'TRIAL wex is to restart the machine'
  old=$(pid_of /usr/sbin/root-service-a)
  kill -ABRT "$old"
  within 30 registered root-service-a "$old" || fail "root-service-a does not come back from a core dump"   # both write /core: one by one
  kill -ABRT "$(pid_of /usr/sbin/root-service-b)"
  sleep 60
  fail "the machine runs on after a burst of core dumps"
}

# ---- The boots -------------------------------------------------------------------------------------------------

install_packages() {
  DEBIAN_FRONTEND=noninteractive dpkg --install /trial/*.deb > /trial/dpkg.log 2>&1 || { cat /trial/dpkg.log; fail "dpkg refuses the packages"; }
  gone /usr/sbin/wex || fail "installing wex starts it"
  is "$(systemctl is-enabled wex) $(systemctl is-active wex)" 'disabled inactive' "wex that was only installed"
  ok "installed, wex is neither started nor enabled"
}

boot_1() {
  services='root-service-a root-service-b' die_alone=root-service-a
  systemd-sysusers --inline 'u service 1234' || fail "no user for the next boot"
  install_packages
  systemctl enable --now wex || fail "systemctl enable --now wex"
  ready "enabled and started"
  unit_took_effect
  started_as_told
  capabilities_are "as packaged" "$(facts 1 CapBnd)"
  ok "wex is ready, and every line of its unit counts"
  for name in a b; do comes_back_as_it_was root-service-$name root-service@$name.service; done
  ok "killed services come back with all that they had, as wex's processes"
  services_outlive_wex
  files_are_there '^/data/\.wex_(history|reboot)$|^/run/wex$'
  clearing_leaves_files
  with_least_capabilities
  rm -r $drop_in
  systemctl daemon-reload && systemctl restart wex || fail "systemctl restart wex"
  within 30 answers "$daemon" || fail "wex is not ready"
  capabilities_are "without wex-least.conf again" "$(facts 1 CapBnd)"
  for name in $services; do kill_service $name "before the burst"; done
  : > /etc/wex/strict
  restart_machine
}

boot_2() {
  services='root-service-a root-service-b user-service' die_alone='root-service-a user-service'
  ready "enabled, after a boot"
  is "$(grep -c 'detect more than 2 process exit in shorttime\[900\]s' /data/.wex_reboot)" 1 "reboots in the record"
  grep -q 'wex restarts the device: detect more than 2 process exit' /data/.wex_history || fail "no history of the reboot"
  ok "the restart of the machine is recorded, and wex is there again without anybody's doing"
  grep -q 'Strict mode: ' $running_log || fail "wex is not strict"
  [ -z "$(ls $database)" ] || fail "registrations outlive a boot: $(ls $database)"
  unit_took_effect
  started_as_told
  capabilities_are "as packaged" "$(facts 1 CapBnd)"
  ok "strict: wex is ready, and every line of its unit counts"
  for name in a b; do comes_back_as_it_was root-service-$name root-service@$name.service; done
  comes_back_as_it_was user-service user-service.service
  is "$(facts "$(pid_of /usr/sbin/user-service)" Uid) $(facts "$(pid_of /usr/sbin/user-service)" Groups)" '1234 1234 1234 1234 100 1234' "the user's service"
  ok "strict: killed services come back with all that they had, as who they were"
  services_outlive_wex
  files_are_there '^$'
  clearing_leaves_files
  with_least_capabilities
  restart_machine
}

boot_3() {
  services='root-service-a user-service'
  ready "with wex-least.conf, after a boot"
  capabilities_are "with wex-least.conf, after a boot" "$(mask_of_guide)"
  is "$(grep -c 'detect more than 2 process exit in shorttime\[900\]s' /data/.wex_reboot)" 2 "reboots in the record"
  ok "strict, with wex-least.conf: wex may restart the machine, and records it"
  start_service root-service-a root-service@a.service
  start_service user-service user-service.service
  for name in $services; do kill_service $name "before the machine is switched off"; done
  echo 'TRIAL systemd is to switch the machine off'
  echo "TRIAL switched off at $(cut -d' ' -f1 /proc/uptime)"
  systemctl poweroff
}

echo
"boot_$boot"
