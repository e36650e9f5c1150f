# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""How the scripts load the plug-in, if it is this run's turn for that, and call the probe."""

import _ctypes
import ctypes
import os

_probe = ctypes.CDLL(None)
_plugin = None


def load():
    global _plugin
    path = os.environ.get("SORVANE_HOSTS_LOAD")
    if path:
        _plugin = ctypes.CDLL(path)


def unload():
    global _plugin
    if _plugin is not None:
        _ctypes.dlclose(_plugin._handle)
        _plugin = None


def snapshot(name):
    _probe.hosts_snapshot(name.encode())
