# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""KeyboardInterrupt: out of a blocking read, caught, and the last one not."""

import os
import signal

import plugin

# What Python does by itself when the signal has its default action.
signal.signal(signal.SIGINT, signal.default_int_handler)
plugin.load()
reading, writing = os.pipe()
for time in (1, 2):
    try:
        print("reading", time, flush=True)
        os.read(reading, 1)
    except KeyboardInterrupt:
        print("interrupted", time, flush=True)
plugin.unload()
plugin.snapshot("later")
print("reading", 3, flush=True)
os.read(reading, 1)
