#!/usr/bin/env python3
"""Tests the program on a real Bluetooth stack: tests/lab/lab_test.py PROGRAM [TEST...]. Runs in the lab (docs/lab.md)."""
import contextlib
import signal
import sys
import tempfile
import time
import traceback
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tools"))
from bridge_client import Deviation, check, wait_until  # noqa: E402
from lab_rig import machine  # noqa: E402
from lab_rig.bridge import Bridge, Transfer, check_source, echo, start_program  # noqa: E402
from lab_rig.machine import DEADLINE, HOST_ADAPTER, PERIPHERAL_ADAPTER, PERIPHERAL_ADDRESS  # noqa: E402
from lab_rig.peripheral import Peripheral  # noqa: E402

ECHO_BYTES = 200_000


class Tests:
    def __init__(self, executable, folder):
        self.executable, self.folder = executable, folder
        self.peripheral = None

    def fresh_folder(self):
        return Path(tempfile.mkdtemp(dir=self.folder))

    @contextlib.contextmanager
    def bridge(self):
        """A program of the test's own. When the test went well the program has to end cleanly upon "exit"."""
        bridge = Bridge(self.executable, self.fresh_folder())
        try:
            yield bridge
            bridge.exit()
        except BaseException:
            print("".join(bridge.program.log_lines(40)) + bridge.program.errors.read_text(), flush=True)
            raise
        finally:
            bridge.program.stop()
        # A sanitizer reports there, and nothing else writes to it.
        check(not bridge.program.errors.read_text(), bridge.program.errors.read_text())

    def fresh_peripheral(self, **settings):
        if not self.peripheral:
            self.peripheral = Peripheral()
        self.peripheral.configure(**settings)
        self.violations = self.peripheral.counters()["violations"]

    def start_anew(self):
        if self.peripheral:
            self.kill_peripheral()
        machine.restart()

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
                machine.forget_devices()
                bridge.ask("lescan 1000", "N/A")
                self.peripheral.do(f"appear {name}")
                bridge.send("lescan 4000")
                expected = PERIPHERAL_ADDRESS.lower() + (f";{name}" if name else "")
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
            data.sendall(b"here")  # bytes from the peripheral are dropped until the program serves the data pipe
            wait_until(lambda: self.peripheral.counters()["bytes_in"] == before + 4, DEADLINE, "the first bytes' arrival")
            self.peripheral.do(f"set serial source:{ECHO_BYTES}")
            received = Transfer(data, b"", ECHO_BYTES).wait(DEADLINE)
            check_source(received)
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
            bridge.expect_loss(data)
            bridge.ask(f"connect {PERIPHERAL_ADDRESS}", "OK", "ERROR TIO")
            self.peripheral.do("appear")
            self.session(bridge)

    def break_link(self, cause, cure=lambda: None, logged=""):
        """Breaks the link by `cause` in the middle of a transfer. The client is told, the log has the line `logged`, and
        after `cure` the same program connects again."""
        self.fresh_peripheral()
        with self.bridge() as bridge:
            data = bridge.connect()
            transfer = Transfer(data, bytes(2_000_000), 2_000_000)
            wait_until(lambda: len(transfer.received) > 20_000, DEADLINE, "the transfer")
            cause()
            start = time.monotonic()
            bridge.expect_loss(data)
            print(f"  told after {time.monotonic() - start:.1f} s", flush=True)
            transfer.wait(DEADLINE)
            wait_until(lambda: logged in bridge.program.log.read_text(), DEADLINE, f"{logged!r} in the log")
            cure()
            self.fresh_peripheral()
            self.session(bridge)

    def test_link_dropped(self):
        self.break_link(lambda: self.peripheral.do("drop"))

    def test_peripheral_killed(self):
        self.break_link(self.kill_peripheral)

    def kill_peripheral(self):
        self.peripheral.kill()
        self.peripheral = None

    def test_adapter_switched_off(self):
        self.break_link(lambda: machine.power(False, HOST_ADAPTER), lambda: machine.power(True, HOST_ADAPTER), "adapter hci0 was switched off")

    def test_adapter_unplugged(self):
        def unplug():
            machine.end_daemon(machine.TWO_CONTROLLERS)
            self.kill_peripheral()

        def plug_in():
            machine.start_daemon(machine.TWO_CONTROLLERS)
            machine.wait_for_adapters()

        self.break_link(unplug, plug_in, "adapter hci0 is gone")

    def test_bluetoothd_restarted(self):
        self.restart_bluetoothd(signal.SIGTERM)

    def test_bluetoothd_crashed(self):
        self.restart_bluetoothd(signal.SIGKILL)

    def restart_bluetoothd(self, how):
        def end():
            machine.end_daemon(machine.BLUETOOTHD, how)
            self.kill_peripheral()
            machine.start_daemon(machine.BLUETOOTHD)

        self.break_link(end, machine.wait_for_adapters, "bluetoothd has ended")

    def test_peripheral_without_service(self):
        self.stop_peripheral()
        empty = Peripheral("--no-service")
        with contextlib.closing(empty), self.bridge() as bridge:
            bridge.ask(f"connect {PERIPHERAL_ADDRESS}", "OK", "ERROR TIO")

    def stop_peripheral(self):
        if self.peripheral:
            self.peripheral.close()
            self.peripheral = None
        machine.forget_devices()

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
            machine.wait_for_adapters()
            self.stop_peripheral()
            self.fresh_peripheral()
            self.session(bridge)

    def expect_refusal_to_start(self, *texts):
        """Starts the program and checks that it tells these texts in its log and ends."""
        program = start_program(self.executable, self.fresh_folder())
        try:
            code = program.process.wait(DEADLINE)
            log = program.log.read_text()
            check(code == 0 and all(text in log for text in texts), f"exit code {code}, log:\n{log}")
        finally:
            program.stop()

    @contextlib.contextmanager
    def other_controllers(self, *command):
        """Replaces the two virtual controllers by those that the command starts, or by none."""
        self.stop_peripheral()
        machine.end_daemon(machine.TWO_CONTROLLERS)
        wait_until(lambda: HOST_ADAPTER not in machine.objects(), DEADLINE, "the adapter's end")
        try:
            if command:
                machine.start_daemon(command)
                wait_until(lambda: machine.powered(HOST_ADAPTER), DEADLINE, "the adapter")
            yield
        finally:
            machine.end_daemon(machine.TWO_CONTROLLERS)
            wait_until(lambda: HOST_ADAPTER not in machine.objects(), DEADLINE, "the adapter's end")
            machine.start_daemon(machine.TWO_CONTROLLERS)
            machine.wait_for_adapters()

    def test_start_with_all_adapters_off(self):
        machine.power(False, HOST_ADAPTER, PERIPHERAL_ADAPTER)
        try:
            self.expect_refusal_to_start("BLE DISABLED!")
        finally:
            machine.power(True, HOST_ADAPTER, PERIPHERAL_ADAPTER)

    def test_start_with_the_only_adapter_off(self):
        with self.other_controllers(*machine.ONE_CONTROLLER):
            machine.power(False, HOST_ADAPTER)
            with self.bridge() as bridge:
                check(machine.powered(HOST_ADAPTER), "the program did not switch the adapter on")
                check("BLE ON" in bridge.stats(), "stats do not show the adapter as on")

    def test_start_without_adapter(self):
        with self.other_controllers():
            self.expect_refusal_to_start("BLE NOT FOUND", "there is no adapter that is switched on")

    def test_start_without_bluetoothd(self):
        self.stop_peripheral()
        machine.end_daemon(machine.BLUETOOTHD)
        try:
            self.expect_refusal_to_start("BLE NOT FOUND", "bluetoothd does not run")
        finally:
            machine.start_daemon(machine.BLUETOOTHD)
            machine.wait_for_adapters()


def main(program, *names):
    machine.wait_for_adapters()
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
