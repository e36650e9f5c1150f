# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""faulthandler: a traceback for a signal that is sent, and one for a real fault, of which the
process dies."""

import ctypes
import faulthandler
import os
import signal

import plugin


def fault():
    ctypes.string_at(0)


faulthandler.enable()
faulthandler.register(signal.SIGUSR1, chain=False)
plugin.load()
os.kill(os.getpid(), signal.SIGUSR1)
print("goes on", flush=True)
fault()
