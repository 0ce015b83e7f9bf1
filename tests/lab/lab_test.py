#!/usr/bin/env python3
"""The program on a real Bluetooth stack: tests/lab/lab_test.py PROGRAM [TEST...]. Runs in the lab."""
import contextlib
import signal
import sys
import tempfile
import time
import traceback
from pathlib import Path

import lab
from lab import ADDRESS, DEADLINE, HOST, PERIPHERAL, Bridge, Deviation, Peripheral, Transfer, check, echo, wait_until

ECHO_BYTES = 200_000
FOUND = ADDRESS.lower()


class Tests:
    def __init__(self, executable, folder):
        self.executable, self.folder = executable, folder
        self.peripheral = None

    def fresh_folder(self):
        return Path(tempfile.mkdtemp(dir=self.folder))

    @contextlib.contextmanager
    def bridge(self):
        """A program of the test's own; at the end of a test that went well it has to leave in peace."""
        bridge = Bridge(self.executable, self.fresh_folder())
        try:
            yield bridge
            bridge.exit()
        except BaseException:
            print("".join(bridge.program.log_lines(40)) + bridge.program.errors.read_text(), flush=True)
            raise
        finally:
            bridge.program.stop()
        # Where a sanitizer reports.
        check(not bridge.program.errors.read_text(), bridge.program.errors.read_text())

    def fresh_peripheral(self, **settings):
        if not self.peripheral:
            self.peripheral = Peripheral()
        self.peripheral.configure(**settings)
        self.violations = self.peripheral.counters()["violations"]

    def start_anew(self):
        if self.peripheral:
            self.kill_peripheral()
        lab.restart()

    def no_violation(self):
        count = self.peripheral.counters()["violations"] - self.violations
        check(not count, f"{count} violations of the flow control")

    def session(self, bridge, count=5000):
        data = bridge.connect()
        echo(data, count)
        bridge.disconnect(data)

    def test_scan(self):
        self.fresh_peripheral()
        with self.bridge() as bridge:
            for name in ("", "TIO-LAB", "Zähler, 3. Stock"):
                self.peripheral.do("vanish")
                lab.forget_devices()
                bridge.ask("lescan 1000", "N/A")
                self.peripheral.do(f"appear {name}")
                bridge.send("lescan 4000")
                expected = FOUND + (f";{name}" if name else "")
                answer = bridge.receive()
                check(answer == expected, f"the scan found {answer!r}, not {expected!r}")

    def test_echo_at_every_mtu(self):
        with self.bridge() as bridge:
            for mtu in (20, 23, 100, 244):
                self.fresh_peripheral(tx_mtu=mtu)
                data = bridge.connect()
                start = time.monotonic()
                echo(data, ECHO_BYTES)
                print(f"  MTU {mtu}: {ECHO_BYTES / (time.monotonic() - start) / 1000:.1f} kB/s each way", flush=True)
                wait_until(lambda: bridge.stats().startswith(f"RX {ECHO_BYTES} bytes. TX {ECHO_BYTES} bytes."), DEADLINE,
                           "counting every byte")
                bridge.disconnect(data)
                self.no_violation()

    def test_one_way(self):
        with self.bridge() as bridge:
            self.fresh_peripheral(serial="sink")
            data = bridge.connect()
            before = self.peripheral.counters()["bytes_in"]
            data.sendall(bytes(ECHO_BYTES))
            wait_until(lambda: self.peripheral.counters()["bytes_in"] == before + ECHO_BYTES, DEADLINE, "every byte's arrival")
            bridge.disconnect(data)
            self.no_violation()

            self.fresh_peripheral(serial="sink")
            data = bridge.connect()
            before = self.peripheral.counters()["bytes_in"]
            data.sendall(b"here")  # what comes before the data pipe is served is dropped
            wait_until(lambda: self.peripheral.counters()["bytes_in"] == before + 4, DEADLINE, "the first bytes' arrival")
            self.peripheral.do(f"set serial source:{ECHO_BYTES}")
            received = Transfer(data, b"", ECHO_BYTES).wait(DEADLINE)
            check(received == bytes((i + i // 251) & 0xFF for i in range(ECHO_BYTES)), "the source's bytes differ")
            bridge.disconnect(data)

    def test_reconnect(self):
        self.fresh_peripheral()
        with self.bridge() as bridge:
            for _ in range(20):
                self.session(bridge, 1000)
        self.no_violation()

    def test_reappearing_peripheral(self):
        self.fresh_peripheral()
        with self.bridge() as bridge:
            data = bridge.connect()
            echo(data, 1000)
            self.peripheral.do("vanish")
            bridge.lost(data)
            bridge.ask(f"connect {ADDRESS}", "OK", "ERROR TIO")
            self.peripheral.do("appear")
            self.session(bridge)

    def trouble(self, cause, cure=lambda: None, says=""):
        """In the middle of a transfer; the same program connects again afterwards."""
        self.fresh_peripheral()
        with self.bridge() as bridge:
            data = bridge.connect()
            transfer = Transfer(data, bytes(2_000_000), 2_000_000)
            wait_until(lambda: len(transfer.received) > 20_000, DEADLINE, "the transfer")
            cause()
            start = time.monotonic()
            bridge.lost(data)
            print(f"  told after {time.monotonic() - start:.1f} s", flush=True)
            transfer.wait(DEADLINE)
            wait_until(lambda: says in bridge.program.log.read_text(), DEADLINE, f"{says!r} in the log")
            cure()
            self.fresh_peripheral()
            self.session(bridge)

    def test_link_dropped(self):
        self.trouble(lambda: self.peripheral.do("drop"))

    def test_peripheral_killed(self):
        self.trouble(self.kill_peripheral)

    def kill_peripheral(self):
        self.peripheral.kill()
        self.peripheral = None

    def test_adapter_switched_off(self):
        self.trouble(lambda: lab.power(False, HOST), lambda: lab.power(True, HOST), "adapter hci0 was switched off")

    def test_adapter_unplugged(self):
        def unplug():
            lab.end(lab.BTVIRT)
            self.kill_peripheral()

        def plug_in():
            lab.start(lab.BTVIRT)
            lab.wait_for_adapters()

        self.trouble(unplug, plug_in, "adapter hci0 is gone")

    def test_bluetoothd_restarted(self):
        self.restart_bluetoothd(signal.SIGTERM)

    def test_bluetoothd_crashed(self):
        self.restart_bluetoothd(signal.SIGKILL)

    def restart_bluetoothd(self, how):
        def end():
            lab.end(lab.BLUETOOTHD, how)
            self.kill_peripheral()
            lab.start(lab.BLUETOOTHD)

        self.trouble(end, lab.wait_for_adapters, "bluetoothd has ended")

    def test_peripheral_without_service(self):
        self.stop_peripheral()
        empty = Peripheral("--no-service")
        with contextlib.closing(empty), self.bridge() as bridge:
            bridge.ask(f"connect {ADDRESS}", "OK", "ERROR TIO")

    def stop_peripheral(self):
        if self.peripheral:
            self.peripheral.close()
            self.peripheral = None
        lab.forget_devices()

    def test_no_credits(self):
        self.fresh_peripheral(credits=0)
        with self.bridge() as bridge:
            data = bridge.connect()
            data.sendall(b"held back")
            wait_until(lambda: "the peripheral grants no credits" in bridge.program.log.read_text(), DEADLINE, "the wait in the log")
            check("TIOCONNECTED" in bridge.stats(), "the link should still be up")
            bridge.disconnect(data)
            check(self.peripheral.counters()["violations"] == self.violations, "data without a credit")
            self.fresh_peripheral()
            self.session(bridge)

    def test_resetbt(self):
        self.fresh_peripheral()
        with self.bridge() as bridge:
            bridge.ask("resetbt", "OK")
            lab.wait_for_adapters()
            self.stop_peripheral()
            self.fresh_peripheral()
            self.session(bridge)

    def unusable(self, *texts):
        """The program says why and ends."""
        program = lab.start_program(self.executable, self.fresh_folder())
        try:
            code = program.process.wait(DEADLINE)
            log = program.log.read_text()
            check(code == 0 and all(text in log for text in texts), f"exit code {code}, log:\n{log}")
        finally:
            program.stop()

    @contextlib.contextmanager
    def only(self, *controllers):
        """A machine with other adapters than usual, for a while."""
        self.stop_peripheral()
        lab.end(lab.BTVIRT)
        wait_until(lambda: HOST not in lab.objects(), DEADLINE, "the adapter's end")
        try:
            if controllers:
                lab.start(controllers)
                wait_until(lambda: lab.powered(HOST), DEADLINE, "the adapter")
            yield
        finally:
            lab.end(lab.BTVIRT)
            wait_until(lambda: HOST not in lab.objects(), DEADLINE, "the adapter's end")
            lab.start(lab.BTVIRT)
            lab.wait_for_adapters()

    def test_start_with_all_adapters_off(self):
        lab.power(False, HOST, PERIPHERAL)
        try:
            self.unusable("BLE DISABLED!")
        finally:
            lab.power(True, HOST, PERIPHERAL)

    def test_start_with_the_only_adapter_off(self):
        with self.only(*lab.ONE_ADAPTER):
            lab.power(False, HOST)
            with self.bridge() as bridge:
                check(lab.powered(HOST), "the program did not switch the adapter on")
                check("BLE ON" in bridge.stats(), "the client is not told that it is on")

    def test_start_without_adapter(self):
        with self.only():
            self.unusable("BLE NOT FOUND", "there is no adapter that is switched on")

    def test_start_without_bluetoothd(self):
        self.stop_peripheral()
        lab.end(lab.BLUETOOTHD)
        try:
            self.unusable("BLE NOT FOUND", "bluetoothd does not run")
        finally:
            lab.start(lab.BLUETOOTHD)
            lab.wait_for_adapters()


def main(program, *names):
    lab.wait_for_adapters()
    failed = 0
    with tempfile.TemporaryDirectory(prefix="ziqble-lab-") as temporary:
        folder = Path(temporary)
        folder.chmod(0o755)
        tests = Tests(Path(program).resolve(), folder)
        names = names or [name.removeprefix("test_") for name in vars(Tests) if name.startswith("test_")]
        for name in names:
            print(f"[ RUN    ] {name}", flush=True)
            start = time.monotonic()
            try:
                getattr(tests, "test_" + name)()
                outcome = "[     OK ]"
            except (Deviation, Exception):
                traceback.print_exc()
                outcome, failed = "[ FAILED ]", failed + 1
                tests.start_anew()
            print(f"{outcome} {name} ({time.monotonic() - start:.1f} s)", flush=True)
        tests.stop_peripheral()
    print(f"{len(names) - failed} passed, {failed} failed", flush=True)
    sys.exit(failed > 0)


main(*sys.argv[1:])
