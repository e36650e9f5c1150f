# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Blocking calls that signals interrupt: retried by Python, ended by an exception, woken up by a
descriptor."""

import os
import select
import signal
import time

import plugin


class Enough(Exception):
    pass


def work():
    reading, writing = os.pipe()
    calls = []

    def third_time(number, frame):
        calls.append(number)
        if len(calls) == 3:
            os.write(writing, b"x")

    signal.signal(signal.SIGALRM, third_time)
    signal.setitimer(signal.ITIMER_REAL, 0.01, 0.01)
    print("read", os.read(reading, 1), len(calls) >= 3)
    signal.setitimer(signal.ITIMER_REAL, 0)

    def give_up(number, frame):
        raise Enough

    signal.signal(signal.SIGALRM, give_up)
    for call in (lambda: os.read(reading, 1), lambda: select.select([reading], [], []),
                 lambda: time.sleep(100)):
        signal.setitimer(signal.ITIMER_REAL, 0.01)
        try:
            call()
        except Enough:
            print("given up")

    wake, waking = os.pipe()
    os.set_blocking(waking, False)
    before = signal.set_wakeup_fd(waking)
    signal.signal(signal.SIGUSR1, lambda number, frame: None)
    os.kill(os.getpid(), signal.SIGUSR1)
    print("woken by", os.read(wake, 1))
    signal.set_wakeup_fd(before)
    for descriptor in (reading, writing, wake, waking):
        os.close(descriptor)


signal.signal(signal.SIGALRM, lambda number, frame: None)
signal.signal(signal.SIGUSR1, lambda number, frame: None)
plugin.load()
work()
plugin.unload()
work()
print("end", flush=True)
