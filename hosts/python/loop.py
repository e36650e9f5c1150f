# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""asyncio: add_signal_handler, and children that it waits for."""

import asyncio
import os
import signal

import plugin


async def work():
    loop = asyncio.get_running_loop()
    arrived = asyncio.Queue()
    numbers = (signal.SIGUSR1, signal.SIGTERM, signal.SIGINT)
    for number in numbers:
        loop.add_signal_handler(number, arrived.put_nowait, number.name)
    plugin.load()
    for number in numbers:
        os.kill(os.getpid(), number)
        print("arrived", await arrived.get())
    child = await asyncio.create_subprocess_exec("/bin/sh", "-c", "exit 4")
    print("child", await child.wait())
    plugin.unload()
    plugin.snapshot("later")
    for number in numbers:
        os.kill(os.getpid(), number)
        print("arrived later", await arrived.get())
    print("removed", loop.remove_signal_handler(signal.SIGTERM))


asyncio.run(work())
print("end", flush=True)
