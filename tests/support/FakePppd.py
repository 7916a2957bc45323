#!/usr/bin/python3
# A stand-in for pppd in the dial-up tests.
#
# Writes its arguments, one a line, to the file that TESSEL_FAKE_PPPD_ARGS names (if set), and
# then does what TESSEL_FAKE_PPPD_MODE says:
#   connect         forks a daemon that writes its pid to
#                   $TESSEL_PPP_RUN_DIR/ppp-<linkname>.pid, removes that file on SIGTERM and
#                   exits; this process exits 0 once the file stands, as pppd's updetach does
#   fail N [text]   prints text and exits with status N
#   hang            sleeps until it is killed
import os
import signal
import sys
import time

args = sys.argv[1:]
record = os.environ.get("TESSEL_FAKE_PPPD_ARGS")
if record:
    with open(record, "w") as out:
        out.write("".join(arg + "\n" for arg in args))

mode = os.environ.get("TESSEL_FAKE_PPPD_MODE", "connect").split(" ", 2)
if mode[0] == "fail":
    if len(mode) > 2:
        print(mode[2], flush=True)
    sys.exit(int(mode[1]))
if mode[0] == "hang":
    while True:
        time.sleep(3600)

link = args[args.index("linkname") + 1]
pid_file = os.path.join(os.environ.get("TESSEL_PPP_RUN_DIR", "/run"), "ppp-%s.pid" % link)
ready_read, ready_write = os.pipe()
if os.fork() == 0:
    os.close(ready_read)
    os.setsid()
    null = os.open(os.devnull, os.O_RDWR)
    for fd in (0, 1, 2):
        os.dup2(null, fd)

    def stop(_signal, _frame):
        os.unlink(pid_file)
        os._exit(0)

    signal.signal(signal.SIGTERM, stop)
    with open(pid_file, "w") as out:
        out.write("%d\nppp0\n" % os.getpid())
    os.write(ready_write, b"x")
    os.close(ready_write)
    while True:
        signal.pause()
os.close(ready_write)
os.read(ready_read, 1)
sys.exit(0)
