# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Signals and threads: handlers run on the main thread, masks are each thread's own, sigwait."""

import os
import signal
import threading

import plugin

handled = []


def handler(number, frame):
    handled.append((signal.Signals(number).name, threading.current_thread().name))


def waiter(number, ready, results):
    signal.pthread_sigmask(signal.SIG_BLOCK, [number])
    ready.set()
    results.append(signal.Signals(signal.sigwait([number])).name)


def work():
    for number in (signal.SIGUSR1, signal.SIGTERM):
        ready, results = threading.Event(), []
        thread = threading.Thread(target=waiter, args=(number, ready, results))
        thread.start()
        ready.wait()
        signal.pthread_kill(thread.ident, number)
        thread.join()
        print("sigwait", results)
    threads = [threading.Thread(target=lambda: os.kill(os.getpid(), signal.SIGUSR1))
               for _ in range(4)]
    before = len(handled)
    for thread in threads:
        thread.start()
        thread.join()
        # The main thread runs it before it goes on.
        while len(handled) == before:
            pass
        before = len(handled)
    print(len(handled), sorted(set(handled)))
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGUSR1])
    os.kill(os.getpid(), signal.SIGUSR1)
    print("pending", signal.sigpending())
    signal.pthread_sigmask(signal.SIG_UNBLOCK, [signal.SIGUSR1])
    print(len(handled), flush=True)


for number in (signal.SIGUSR1, signal.SIGTERM):
    signal.signal(number, handler)
plugin.load()
work()
plugin.unload()
plugin.snapshot("later")
work()
