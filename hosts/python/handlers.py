# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Handlers of signal.signal: what they are called with, what replaces them, what ignores."""

import os
import signal

import plugin


def handler(number, frame):
    print("handler", signal.Signals(number).name, frame.f_code.co_name)


def other(number, frame):
    print("other", signal.Signals(number).name)


def work():
    for number in (signal.SIGUSR1, signal.SIGTERM, signal.SIGHUP, signal.SIGALRM):
        os.kill(os.getpid(), number)
    signal.setitimer(signal.ITIMER_REAL, 0.01)
    print("waited", signal.pause())
    os.kill(os.getpid(), signal.SIGUSR2)
    print("pipe", end=" ")
    reading, writing = os.pipe()
    os.close(reading)
    try:
        os.write(writing, b"x")
    except BrokenPipeError as error:
        print(error.strerror)
    os.close(writing)


for number in (signal.SIGUSR1, signal.SIGTERM, signal.SIGHUP, signal.SIGALRM):
    signal.signal(number, handler)
signal.signal(signal.SIGUSR2, signal.SIG_IGN)
plugin.load()
work()
print(signal.getsignal(signal.SIGTERM) is handler)
plugin.unload()
plugin.snapshot("later")
work()
signal.signal(signal.SIGTERM, other)
os.kill(os.getpid(), signal.SIGTERM)
print("end", flush=True)
