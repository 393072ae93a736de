# The story of ./dev demo, told on the device.
# wex: started by the case
# seconds: 180
CASE=14-demo

# As in the sandbox: daemon, children and services each open the console, and the story reads along. The
# shell's own output stays on the real one.
rm /dev/console && mkfifo -m 600 /dev/console || exit 1
cat <> /dev/console >> /dev/console.log 2> /dev/null &

sh /test/demo /sbin/wex /usr/bin ${verbose:+--verbose}
status=$?
[ $status = 0 ] || { echo "CASE $CASE: FAIL the story ended with status $status"; exit 1; }
for name in wex clock worker fragile; do
  pidof $name > /dev/null && { echo "CASE $CASE: FAIL $name still runs"; exit 1; }
done
echo "CASE $CASE: pass"
