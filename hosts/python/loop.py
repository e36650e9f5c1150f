"""asyncio: add_signal_handler, and children that it waits for."""

import asyncio
import os
import signal

import plugin


async def work():
    loop = asyncio.get_running_loop()
    for number in (signal.SIGUSR1, signal.SIGTERM, signal.SIGINT):
        arrived = loop.create_future()
        loop.add_signal_handler(number, arrived.set_result, number.name)
        if number == signal.SIGUSR1:
            plugin.load()
        os.kill(os.getpid(), number)
        print("arrived", await arrived)
    child = await asyncio.create_subprocess_exec("/bin/sh", "-c", "exit 4")
    print("child", await child.wait())
    plugin.unload()
    for number in (signal.SIGUSR1, signal.SIGTERM):
        arrived = loop.create_future()
        loop.add_signal_handler(number, arrived.set_result, number.name)
        os.kill(os.getpid(), number)
        print("arrived later", await arrived)
    plugin.snapshot("later")
    print("removed", loop.remove_signal_handler(signal.SIGTERM))


asyncio.run(work())
print("end", flush=True)
