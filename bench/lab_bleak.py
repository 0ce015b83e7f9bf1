#!/usr/bin/env python3
"""A bare loop over the library bleak that speaks as much TIO as a measurement needs: bench/lab_bleak.py echo|out|in ADDRESS BYTES
Prints bytes, seconds and its own CPU seconds as JSON. Runs in the lab, against tools/lab_rig/tio_peripheral."""
import asyncio
import json
import os
import sys
import time

from bleak import BleakClient, BleakScanner
from bleak.exc import BleakError

RX, TX, CRRX, CRTX, RXMTU, TXMTU = (f"{number:08x}-0000-1000-8000-008025000000" for number in (1, 2, 3, 4, 9, 10))
TARGET, THRESHOLD = 40, 10  # as the bridge grants
ATTEMPTS = 3


class Loop:
    def __init__(self, client, count):
        self.client, self.count = client, count
        self.received = bytearray()
        self.credits, self.granted, self.mtu = 0, 0, 20
        self.wake = asyncio.Event()
        self.done = asyncio.Event()
        self.grants = set()

    def on_credits(self, _, value):
        self.credits += value[0]
        self.wake.set()

    def on_mtu(self, _, value):
        self.mtu = int.from_bytes(value, "little")

    def on_data(self, _, value):
        self.received += value
        self.granted -= 1
        if len(self.received) >= self.count:
            self.done.set()
        elif self.granted <= THRESHOLD:
            task = asyncio.ensure_future(self.grant())
            self.grants.add(task)
            task.add_done_callback(self.grants.discard)

    async def grant(self):
        credits, self.granted = TARGET - self.granted, TARGET
        await self.client.write_gatt_char(CRRX, bytes([credits]), response=True)

    async def subscribe(self):
        await self.client.start_notify(TXMTU, self.on_mtu)
        await self.client.start_notify(TX, self.on_data)
        await self.client.start_notify(CRTX, self.on_credits)

    async def send(self, data):
        for start in range(0, len(data), self.mtu):
            while not self.credits:
                self.wake.clear()
                await self.wake.wait()
            self.credits -= 1
            await self.client.write_gatt_char(RX, data[start:start + self.mtu], response=False)

    async def receive(self):
        await self.grant()
        await self.done.wait()


async def connect(address):
    """Connects; tries again as often as the bridge does when the link drops at once."""
    for left in range(ATTEMPTS - 1, -1, -1):
        device = await BleakScanner.find_device_by_address(address, 20, adapter="hci0")
        if not device:
            sys.exit(f"error: {address} is not found")
        client = BleakClient(device, adapter="hci0")
        try:
            await client.connect()
            return client
        except BleakError:
            if not left:
                raise


async def main(way, address, count):
    client = await connect(address)
    try:
        loop = Loop(client, count)
        await loop.subscribe()
        while not loop.credits:
            await asyncio.sleep(0.01)
        await client.write_gatt_char(RXMTU, loop.mtu.to_bytes(2, "little"), response=True)
        data = os.urandom(count)
        start, cpu = time.monotonic(), time.process_time()
        jobs = [loop.send(data)] if way != "in" else []
        jobs += [loop.receive()] if way != "out" else []
        await asyncio.wait_for(asyncio.gather(*jobs), 300)
        print(json.dumps({"bytes": count, "seconds": time.monotonic() - start, "cpu": time.process_time() - cpu}))
        if way == "echo" and loop.received != data:
            sys.exit("error: the echo differs")
    finally:
        await client.disconnect()


asyncio.run(main(sys.argv[1], sys.argv[2], int(sys.argv[3])))
