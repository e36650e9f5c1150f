# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""How much of the machine other programs took, which is what makes figures doubtful."""

import os
import pathlib
import time


def ticks_used():
    """By everybody, since the start of the machine; what waits for a disk uses nothing."""
    words = pathlib.Path("/proc/stat").read_text(encoding="utf-8").split("\n", 1)[0].split()[1:]
    user, nice, system, _, _, irq, softirq, steal = (int(word) for word in words[:8])
    return user + nice + system + irq + softirq + steal


class OthersUse:
    """Of the time since it was made."""

    def __init__(self):
        self._begin = self._now()

    @staticmethod
    def _now():
        own = os.times()
        return (time.monotonic(), ticks_used() / os.sysconf("SC_CLK_TCK"),
                own.user + own.system + own.children_user + own.children_system)

    def percent(self):
        elapsed, everybody, own = (now - then for now, then in zip(self._now(), self._begin))
        return max(0, round(100 * (everybody - own) / (elapsed * os.cpu_count())))
