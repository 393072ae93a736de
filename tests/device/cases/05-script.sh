# Restart through a script of the command map: by the program's name, and by a command of its own.
. /test/lib.sh
mkdir -p /etc/cmdmap
cat > /etc/cmdmap/service.sh <<'S'
echo "service.sh $*" >> /tmp/scripts
exec /usr/bin/service "$@"
S
cat > /etc/cmdmap/revive <<'S'
echo "revive $*" >> /tmp/scripts
exec /usr/bin/service --script "revive a b" --tag own
S
start_service /usr/bin/service --script --tag named
named=$service
is "$(sed -n 2p $DB/service.$named)" 3 "action in the database file"
kill -KILL $named
check "the named script did not bring it back" eventually 15 other_runs $named /usr/bin/service --script --tag named
is "$(cat /tmp/scripts)" "service.sh --script --tag named" "how the named script was called"
check "the restart was not announced" eventually 5 grep -q HA_SCRIPT_SELF_CHECK_INFO $LOG

rm /tmp/scripts
start_service /usr/bin/service --script "revive a b" --tag own
own=$service
kill -KILL $own
check "the script of its own did not bring it back" eventually 15 other_runs $own /usr/bin/service --script "revive a b" --tag own
is "$(cat /tmp/scripts)" "revive a b" "how the script of its own was called"
pass
