# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""subprocess: exit statuses, signals, pipes, a child that gets its handlers' default actions."""

import os
import signal
import subprocess
import sys

import plugin

SCRIPT = "trap 'echo terminated; exit 7' TERM; echo ready; read line; exit 3"


def work():
    print(subprocess.run(["/bin/sh", "-c", "exit 5"]).returncode, flush=True)
    print(subprocess.run(["/bin/sh", "-c", "kill -KILL $$"]).returncode)
    print(subprocess.run(["/bin/cat"], input=b"text", stdout=subprocess.PIPE).stdout)
    with subprocess.Popen(["/bin/sh", "-c", SCRIPT], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True) as child:
        print(child.stdout.readline().strip())
        child.terminate()
        child.stdin.close()
        print(child.stdout.readline().strip())
    print(child.returncode)
    with subprocess.Popen(["/bin/cat"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0,
                          restore_signals=False) as child:
        child.stdin.write(b"ready\n")
        print(child.stdout.readline())
        child.send_signal(signal.SIGTERM)
    print(child.returncode)
    pid = os.fork()
    if pid == 0:
        os._exit(9)
    try:
        print(os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
    except ChildProcessError as error:
        print(error.strerror)
    sys.stdout.flush()


plugin.load()
work()
plugin.unload()
plugin.snapshot("later")
work()
