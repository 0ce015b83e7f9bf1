"""The program on a real Bluetooth stack, in the lab: what can happen to adapters, bluetoothd and a peripheral."""
import signal

import pytest
from bridge_client import DEADLINE, Bridge, check_source, wait_until
from conftest import peripheral
from lab_rig import machine
from lab_rig.machine import HOST_ADAPTER, PERIPHERAL_ADAPTER, PERIPHERAL_ADDRESS
from lab_rig.peripheral import lab

pytestmark = pytest.mark.rigs("lab")


def test_scan(rig):
    bridge = rig.start()
    for name in "", "TIO-LAB", "Zähler, 3. Stock":
        lab.peripheral.do("vanish")
        machine.forget_devices()
        bridge.ask("lescan 1000", "N/A")
        lab.peripheral.do(f"appear {name}")
        assert bridge.ask("lescan 4000") == PERIPHERAL_ADDRESS.lower() + (f";{name}" if name else "")


def test_bytes_from_the_peripheral(rig):
    bridge = rig.start(peripheral(serial="sink"))
    data = bridge.connect()
    data.send(b"here")  # bytes from the peripheral are dropped until the program serves the data pipe
    wait_until(lambda: lab.account().bytes_in == 4, DEADLINE, "the first bytes' arrival")
    lab.peripheral.do("set serial source:200000")
    check_source(data.read(200_000))
    bridge.disconnect()


def test_peripheral_that_comes_back(rig):
    bridge = rig.start()
    bridge.connect()
    bridge.echo(1000)
    lab.peripheral.do("vanish")
    bridge.expect_loss()
    bridge.ask(f"connect {PERIPHERAL_ADDRESS}", "OK", "ERROR TIO")
    lab.peripheral.do("appear")
    # The emulated radio of a busy machine may miss it for the whole of one connect.
    bridge.ask(f"connect {PERIPHERAL_ADDRESS}", "OK")
    assert bridge.shell.line(180) in ("CONNECT TIO", "ERROR TIO")
    bridge.session()


@pytest.mark.parametrize("cause, cure, logged", [
    pytest.param(lambda: lab.peripheral.do("drop"), lambda: None, "", id="link dropped"),
    pytest.param(lab.kill, lambda: None, "", id="peripheral killed"),
    pytest.param(lambda: machine.power(False, HOST_ADAPTER), lambda: machine.power(True, HOST_ADAPTER),
                 "adapter hci0 was switched off", id="adapter switched off"),
    pytest.param(lab.unplug, machine.plug_in, "adapter hci0 is gone", id="adapter unplugged"),
    pytest.param(lambda: lab.restart_bluetoothd(signal.SIGTERM), machine.wait_for_adapters,
                 "bluetoothd has ended", id="daemon ended"),
    pytest.param(lambda: lab.restart_bluetoothd(signal.SIGKILL), machine.wait_for_adapters,
                 "bluetoothd has ended", id="daemon killed"),
])
def test_link_that_breaks_during_a_transfer(rig, cause, cure, logged):
    """The client is told, the log has the line, and after the cure the same program connects again."""
    bridge = rig.start()
    data, shell = bridge.connect(), bridge.shell
    rest = memoryview(bytes(2_000_000))
    rest = rest[data.move(rest, until=lambda: len(data.come) > 20_000):]
    cause()
    data.move(rest, until=lambda: shell.come or shell.pull() or shell.ended)
    bridge.expect_loss()
    bridge.program.wait_for_log(logged)
    cure()
    lab.configure()
    bridge.session(5000)


def test_peripheral_without_service(rig):
    bridge = rig.start(peripheral(no_service=True))
    bridge.ask(f"connect {PERIPHERAL_ADDRESS}", "OK", "ERROR TIO")
    lab.stop()


def test_no_credits(rig):
    bridge = rig.start(peripheral(initial_credits=0))
    bridge.connect().send(b"held back")
    bridge.program.wait_for_log("the peripheral grants no credits")
    assert "TIOCONNECTED" in bridge.stats()
    bridge.disconnect()
    assert lab.account()[:2] == (0, 0) and lab.account().violations == 0
    lab.configure()
    bridge.session()


def test_resetbt(rig):
    bridge = rig.start()
    bridge.ask("resetbt", "OK")
    machine.wait_for_adapters()
    lab.stop()
    lab.configure()
    bridge.session()


@pytest.mark.parametrize("take, give_back, told", [
    pytest.param(lambda: machine.power(False, HOST_ADAPTER, PERIPHERAL_ADAPTER),
                 lambda: machine.power(True, HOST_ADAPTER, PERIPHERAL_ADAPTER), ["BLE DISABLED!"], id="all adapters off"),
    pytest.param(machine.end_controllers, machine.plug_in, ["BLE NOT FOUND", "there is no adapter that is switched on"], id="no adapter"),
    pytest.param(lambda: machine.end_daemon(machine.BLUETOOTHD), machine.start_bluetoothd, ["BLE NOT FOUND", "bluetoothd does not run"],
                 id="no bluetoothd"),
])
def test_start_without_usable_bluetooth(rig, take, give_back, told):
    lab.stop()
    take()
    try:
        program = rig.launch()
        assert program.wait() == 0
        assert all(text in program.log_text() for text in told)
    finally:
        give_back()


def test_start_with_the_only_adapter_off(rig):
    lab.stop()
    machine.end_controllers()
    machine.start_daemon(machine.ONE_CONTROLLER)
    try:
        wait_until(lambda: machine.powered(HOST_ADAPTER), DEADLINE, "the adapter")
        machine.power(False, HOST_ADAPTER)
        bridge = Bridge(rig.start_bridge(), PERIPHERAL_ADDRESS)  # its pipe is there before the adapter is on
        assert machine.powered(HOST_ADAPTER) and "BLE ON" in bridge.stats()
        bridge.exit()
    finally:
        machine.end_controllers()
        machine.plug_in()
