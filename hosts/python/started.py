# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""What Python does for SIGINT and SIGPIPE by itself, when it starts."""

import os
import signal
import sys

print(signal.getsignal(signal.SIGINT) is signal.default_int_handler)
print(signal.getsignal(signal.SIGPIPE) == signal.SIG_IGN)
sys.stdout.flush()
os.kill(os.getpid(), signal.SIGINT)
print("goes on", flush=True)
