"""The program as its clients see it, and what its peripheral has got."""
import os
import re
import select
import signal
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from random import Random

import pytest
from bridge_client import DEADLINE, Linux, Pipe, gaps_between, seconds_of, source_bytes, wait_until
from conftest import ADDRESS, CYCLES, LAB, NOISE, RIG, ROOT, SANITIZED, WINDOWS, WINE, peripheral

SIM = pytest.mark.rigs("sim", "sim-wine")
NEWER = pytest.mark.rigs("sim", "sim-wine", "windows")  # with the newer GATT calls
REAL = pytest.mark.rigs("windows", "windows-older")
EVERYWHERE = pytest.mark.rigs("sim", "sim-wine", "windows", "windows-older", "lab")
pytestmark = pytest.mark.rigs("sim", "sim-wine", "windows", "windows-older")
# Wine has no adapters.
NO_ADAPTER = ";BLE LE NOT SUPPORTED;LE NOT SUPPORTED;"
VERSION, SYSTEM = {"windows": ("10.0.", NO_ADAPTER), "windows-older": ("6.3.", NO_ADAPTER), "lab": ("10.0.", ";BLE ON;LE=")}.get(
    RIG, ("10.0.19041", ";BLE ON;LE=Sim Adapter+9|;"))
EMPTY = peripheral(services=[], cached_services=[], uncached_services=[])
ECHO = 200_000 if LAB else 1 << 20


def end_within_five_seconds(program, number):
    program.process.send_signal(number)
    seconds, code = seconds_of(program.wait)
    assert code == 0 and seconds < 5


def given_up(program):
    return sum(map(int, re.findall(r"(\d+) bytes for the client given up", program.log_text())))


@EVERYWHERE
@pytest.mark.parametrize("mtu", [20, 100, 244])
def test_bytes_go_both_ways_in_packets_that_fit(rig, mtu):
    # So many credits that the program need not wait for new ones all the time.
    plenty, size = {} if LAB else {"initial_credits": 1000, "regrant_at": 500}, ECHO * mtu // 244
    bridge = rig.start(peripheral(tx_mtu=mtu, **plenty))
    stats = bridge.stats()
    assert stats.startswith("RX 0 bytes. TX 0 bytes. LC 0. RC 0. V" + VERSION)
    assert SYSTEM in stats and stats.endswith(";TIODISCONNECTED")
    if not LAB:
        assert bridge.ask("LESCAN 5000") == ADDRESS.lower() + ";TIO-SIM"
    bridge.connect()
    bridge.echo(size, seconds=120)
    wait_until(lambda: bridge.stats().startswith(f"RX {size} bytes. TX {size} bytes. LC "), DEADLINE, "counting every byte")
    assert bridge.stats().endswith(";TIOCONNECTED")
    assert bridge.disconnect() == b""
    account = rig.account(bridge)
    assert (account.bytes_in, account.bytes_out, account.violations) == (size, size, 0)
    # A packet costs a credit, and the program fills its packets: at worst it gets the bytes in blocks that end with a short one.
    assert size / mtu <= account.used < 2 * size / mtu
    assert account.host_used <= account.host_granted <= account.host_used + 40


@REAL
def test_values_that_the_runtime_raises_at_once_arrive_whole_and_once(rig, monkeypatch):
    """Their order is the runtime's. ziqble writes blocks that are full packets, so all packets have the same length."""
    monkeypatch.setenv("ZIQBLE_EVENT_THREADS", "4")
    rig.start_bridge(**peripheral(tx_mtu=32))
    sent = os.urandom(32000)
    back = rig.run("pipe", ADDRESS, "--bytes", str(len(sent)), input=sent).stdout
    packets = [sorted(some[at:at + 32] for at in range(0, len(some), 32)) for some in (sent, back)]
    assert back != sent and packets[0] == packets[1]
    assert rig.moved() == (len(sent), len(sent))


@EVERYWHERE
def test_bytes_of_one_way(rig):
    bridge = rig.start(peripheral(serial="sink"))
    bridge.connect().send(bytes(ECHO))
    # The program has taken what it has counted, but for the packet under way.
    wait_until(lambda: f"TX {ECHO} " in bridge.stats(), 120, "every byte's arrival")
    bridge.disconnect()
    account = rig.account(bridge)
    assert (account.bytes_in, account.bytes_out, account.violations) == (ECHO, 0, 0)


def test_bytes_that_nobody_gets_are_told(rig):
    """Those that come before the data pipe is open are, and from then on none is missing."""
    bridge = rig.start(peripheral(serial="source:20000", link={"interval_us": 8000, "packets_per_interval": 1}))
    data = bridge.connect()
    data.move(until=lambda: len(data.come) + given_up(bridge.program) >= 20000)
    received = data.take(20000) + bridge.disconnect()
    assert len(received) + given_up(bridge.program) == 20000
    assert len(received) > 1000 and source_bytes(20000).endswith(received)


@EVERYWHERE
def test_a_client_that_reads_late_loses_nothing(rig):
    bridge = rig.start()
    data, sent = bridge.connect(), os.urandom(250_000 if LAB else 2_000_000)
    taken = 0
    while select.select([], [data.socket], [], 0.5)[1] and taken < len(sent):  # until the pipes and all between them are full
        taken += data.offer(sent[taken:taken + 65536])
    assert data.exchange(sent[taken:], len(sent)) == sent
    assert not given_up(bridge.program)


def test_a_client_that_does_not_read_is_told_what_it_loses(rig):
    # A write of 20 bytes is given up after 1050 ms.
    bridge = rig.start(peripheral(tx_mtu=20))
    data = bridge.connect(**{"buffer": 2048} if WINE else {})
    sent = os.urandom(60_000)
    data.send(sent)
    wait_until(lambda: given_up(bridge.program), DEADLINE, "giving up")
    data.move(until=lambda: len(data.come) + given_up(bridge.program) >= len(sent))
    received, lost = data.take(len(sent)) + bridge.disconnect(), given_up(bridge.program)
    assert len(received) + lost == len(sent) == rig.account(bridge).bytes_out
    assert gaps_between(sent, received) == [lost]


def test_odd_lines(rig):
    """A scan that is too short, an unknown command and a line that is too long get no answer; the next command does. Before that
    the program has switched its only radio on."""
    bridge = rig.start({"radios": [{"state": "Off", "switch_delay_ms": 1500}]})
    bridge.program.wait_for_log("Radio object state is now 1")
    bridge.shell.send(b"lescan 999\nlescan -1\nquit now\n" + b"a" * 200_000 + b"\n")
    assert bridge.stats().startswith("RX 0")
    bridge.program.wait_for_log("Unknown command: quit now\n")
    bridge.program.wait_for_log("aaa... (line longer than 64 KiB)\n")
    assert len(bridge.program.log_text()) < 100_000
    for address in "00:1A:7D:DA:71", ADDRESS[:-2] + "99":
        bridge.ask("connect " + address, "OK", "ERROR TIO")
    bridge.connect()


@EVERYWHERE
def test_one_client_after_another(rig):
    bridge = rig.start()
    program, data = bridge.program, bridge.connect()
    with ThreadPoolExecutor() as pool:
        # On Linux the second client can open the pipe at once, on Windows it has to try again.
        second = pool.submit(program.shell)
        assert bridge.stats().endswith(";TIOCONNECTED")
        if not WINE:
            second.result().command("stats")
            assert not select.select([second.result().socket], [], [], 0.1)[0]
        bridge.shell.command("QUIT")
        assert bridge.shell.read_to_end() == b""
        bridge.shell = second.result()
    # The link goes on for the next client.
    assert (bridge.shell.line() if not WINE else bridge.stats()).endswith(";TIOCONNECTED")
    bridge.echo(1000)
    # A client that vanishes takes the link with it.
    bridge.shell.close()
    assert data.read_to_end() == b""
    bridge.shell = program.shell()
    assert bridge.stats().endswith(";TIODISCONNECTED")
    bridge.session()


@pytest.mark.parametrize("last, half_gone", [("quit\n", False), ("exit\n", False),
                                             pytest.param("", True, marks=pytest.mark.rigs("sim"))])
def test_replies_that_the_client_does_not_wait_for(rig, last, half_gone):
    bridge = rig.start()
    bridge.shell.send(("stats\ndisconnect\n" + last).encode())
    if half_gone:
        bridge.shell.socket.shutdown(1)
    else:
        bridge.program.wait_for_log("terminate shell command" if last == "quit\n" else "Exiting on terminate")
    assert re.fullmatch(rb"RX 0 [^\r]*\r\nOK\r\n", bridge.shell.read_to_end())


@pytest.mark.parametrize("lines, awaited, world", [
    ("", "Client: (", {}),
    ("lescan 3600000", "Start scanning...", {}),
    ("connect", "Trigger a fake event...", {"time_scale": 1}),
    ("connect", "Get device from address", peripheral(faults=[{"on": "device", "do": "hang"}])),
    ("connect", "Starting communication loop...", {}),
    pytest.param("connect", "Radio object going OFF", {"time_scale": 1, "radios": [{"switch_delay_ms": 3000}], **EMPTY},
                 marks=NEWER),
    pytest.param("stats", "SHELL INPUT: stats", {"faults": [{"on": "radios", "after": 1, "do": "hang"}]}, marks=SIM),
])
@pytest.mark.parametrize("number", [signal.SIGINT, pytest.param(signal.SIGTERM, marks=pytest.mark.rigs("sim"))])
def test_ends_within_five_seconds_whatever_it_is_doing(rig, lines, awaited, world, number):
    bridge = rig.start(world)
    if lines:
        bridge.shell.command(f"connect {ADDRESS}" if lines == "connect" else lines)
    bridge.program.wait_for_log(awaited)
    end_within_five_seconds(bridge.program, number)
    rig.account(bridge, ended=True)
    assert "terminate APP command" not in bridge.program.log_text()


def test_one_instance(rig):
    rig.start().program.kill()
    bridge = rig.start()
    second = rig.launch()
    assert second.wait() == 0
    second.wait_for_log("Could not create a named pipe: ")
    bridge.session()


def test_a_link_that_drops_is_told(rig):
    bridge = rig.start(peripheral(faults=[{"on": "write:RX", "after": 3, "times": 1, "do": "disconnect"}]))
    bridge.connect().send(bytes(4 * 244))
    # Nothing of the old session is left, and the next one works.
    assert len(bridge.expect_loss()) <= 3 * 244
    bridge.session()
    bridge.program.wait_for_log("commThread is DONE!", 2)


@NEWER
def test_a_disconnect_during_the_radio_reset_leaves_the_next_session_alone(rig):
    # The first peripheral has no service, for which the program switches the radio off and on. The radio is slow: it goes off
    # only after the next session has begun.
    bridge = rig.start({"time_scale": 10, "radios": [{"switch_delay_ms": 3000}],
                        "peripherals": [*EMPTY["peripherals"], {"address": "00:00:00:00:00:01"}]})
    bridge.ask(f"connect {ADDRESS}", "OK")
    bridge.program.wait_for_log("Radio object going OFF")
    bridge.ask("disconnect", "OK")
    bridge.address = "00:00:00:00:00:01"
    bridge.session()


@pytest.mark.rigs("sim", "sim-wine", "windows")
def test_a_log_that_nobody_reads_holds_nothing_up(rig):
    unread, output = os.pipe()
    bridge = rig.start(output=output)
    os.close(output)
    for _ in range(500):
        assert bridge.stats().endswith(";TIODISCONNECTED")
    bridge.connect()
    bridge.echo(1000)
    end_within_five_seconds(bridge.program, signal.SIGINT)
    os.close(unread)


@EVERYWHERE
def test_nothing_is_left_behind_by_many_connections(rig):
    bridge = rig.start({"time_scale": 1000, **peripheral()})
    program = bridge.program

    def cycles(count, done):
        for _ in range(count):
            bridge.session(4)
        program.wait_for_log("commThread is DONE!", done)

    cycles(CYCLES // 4, CYCLES // 4)
    early, resident = rig.host.resources(program), Linux.memory(program)
    cycles(CYCLES - CYCLES // 4, CYCLES // 4 * 4)

    def settled():
        return all(now <= before + NOISE for now, before in zip(rig.host.resources(program), early))
    wait_until(settled, DEADLINE, f"returning to {early} threads and descriptors")
    if not (WINE or SANITIZED or LAB):
        assert Linux.memory(program) <= min(resident + (512 << 10), 20 << 20)
    account = rig.account(bridge)
    assert (account.bytes_in, account.bytes_out, account.violations) == (4 * CYCLES, 4 * CYCLES, 0)


@EVERYWHERE
def test_clients_may_vanish_at_any_moment(rig):
    seed = Random().getrandbits(32)
    print("seed", seed)
    random, longest = Random(seed), 0.1 if RIG.startswith("sim") else 3  # twice as long as the set-up of a link takes
    bridge = rig.start()
    for _ in range(100 if RIG == "sim" else 8 if LAB else 20):
        end, data = time.monotonic() + random.uniform(0, longest), None
        bridge.shell.command(f"connect {rig.address}")
        bridge.shell.move(until=lambda: b"CONNECT TIO\r\n" in bridge.shell.come or time.monotonic() > end)
        if b"CONNECT TIO\r\n" in bridge.shell.come:
            data = Pipe(bridge.program.open(bridge.program.data))
            while time.monotonic() < end:
                data.move(os.urandom(1000), until=lambda: time.monotonic() > end or len(data.come) > 100_000)
        # They say nothing before they close their pipes.
        for pipe in sorted(filter(None, [bridge.shell, data]), key=lambda _: random.random()):
            pipe.close()
        bridge.shell = bridge.program.shell()
    bridge.session()
    rig.account(bridge)


# Whoever chooses a name, or sends a command, must not be able to clear the screen of those who read the log, to forge a line of
# it or of a reply, or to cut one short.
def test_no_control_character_gets_through(rig):
    name, in_log, in_reply = "EVIL\x1b[2J\0\r\nFORGED\x9b\x7f", r"EVIL\x1b[2J\x00\x0d\x0aFORGED\x9b\x7f", "EVIL [2J   FORGED  "
    argument, shown = "\x1b[2J\r\nFORGED\x7f", r"\x1b[2J\x0d\x0aFORGED\x7f"
    named, driver = [{"name": name}], {"description": name, "manufacturer": name, "provider": name}
    bridge = rig.start({"radios": named, "adapters": named, "peripherals": named, "drivers": [{"compatible": [driver]}]},
                       ["-c", rig.pipes[0], "-d", str(rig.pipes[1]) + argument, "stray" + argument, "--bogus" + argument,
                        "--logfile=log" + argument])
    bridge.shell.send(b"evil\x1b[2J\0\x9b\x7f\n")
    bridge.ask("connect \x1b", "OK", "ERROR TIO")
    assert bridge.ask("lescan 5000") == f"{ADDRESS.lower()};{in_reply}"
    stats = bridge.stats()
    bridge.exit()
    logged = ["Radio object is " + in_log, "non_option_args: stray" + shown, "unknown_options: --bogus" + shown,
              "Using log file: log" + shown, r"Unknown command: evil\x1b[2j\x00\x9b\x7f"]
    if not WINDOWS:
        assert "LE=" + in_reply + "+9" in stats
        logged += [f"Driver {title} {in_log}" for title in driver] + [f"| {in_log} supports Bluetooth 5.0+"]
    text = bridge.program.log.read_bytes().decode("utf-8").replace("\r\n", "\n")
    for line in logged:
        assert line + "\n" in text
    assert not re.search("[\x1b\x7f\x9b\0]|\nFORGED", text + bridge.program.errors.read_text())


@pytest.mark.rigs("sim", "sim-wine")
def test_a_bad_scenario_is_refused_before_any_pipe_exists(rig):
    program = rig.launch(peripheral(tx_mtu="large"))
    assert program.wait() == 2
    assert re.match("ZIQBLEConnect: .*tx_mtu", program.errors.read_text()) and program.log_text() == "" and not any(map(rig.host.exists, rig.pipes))


@pytest.mark.parametrize("world, logged", [
    ({"radios": []}, ["BLE NOT FOUND\n", "BLE NOT FOUND\n"]),
    ({"radios": [{"state": "Off", "stuck": True}]}, ["Bluetooth ON initiated...", "SHELL: BLE DISABLED!\n", "BLE DISABLED\n"]),
    ({"radios": [{"state": "Off"}, {"state": "Disabled"}]}, ["BLE DISABLED\n"]),
    pytest.param({"adapters": [{"lmp": 5}]}, ["LE NOT SUPPORTED\n"], marks=SIM),
])
def test_ends_by_itself_without_usable_bluetooth(rig, world, logged):
    program = rig.launch(world)
    assert program.wait() == 0
    assert re.search(".*".join(map(re.escape, [*logged, "Goodbye!"])), program.log_text().replace("\r", ""), re.DOTALL)


def test_command_line(rig, monkeypatch):
    with monkeypatch.context() as environment:
        environment.setenv("ZIQBLE_LOG_TIME", "1")
        incomplete = rig.launch(arguments=["--cmdPipe"])
    assert incomplete.wait() == 0
    assert re.match(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +blescanner\.cpp", incomplete.log_text())
    incomplete.wait_for_log("missing argument for --cmdPipe\n")
    pipes = ["--cmdPipe", rig.pipes[0], "--datPipe", rig.pipes[1]]
    bridge = rig.start(arguments=[*pipes, "extra", "--bogus", "-h", "--logfile=name.txt"])
    bridge.exit()
    assert re.match(r" +blescanner\.cpp:\d+ +INFO\| ZIQBLEConnect 1\.00\.4\n", bridge.program.log_text())
    for text in ("Windows " + VERSION, "Allowed options:\n", "non_option_args: extra\n",
                 "unknown_options: --bogus\n", "Using log file: name.txt\n"):
        assert text in bridge.program.log_text()
    # The log goes to this file, whatever name was given.
    folder = bridge.program.log.parent
    assert "Goodbye!" in (folder / "everything.log").read_text() and not (folder / "name.txt").exists()


def fault(point, action, **more):
    return {"faults": [{"on": point, "do": action, **more}]}


NEWER_ONLY, OLDER_ONLY = pytest.mark.rigs("windows"), pytest.mark.rigs("windows-older")


# The Windows back end turns what its calls return into errors. What the program makes of each is tested elsewhere.
@REAL
@pytest.mark.parametrize("settings, line, logged", [
    (fault("device", "throw:0x80070490"), "ERROR EXP", "-2147023728"),
    (fault("device", "no-operation"), "ERROR TIO", "Could not get LE device!"),
    (fault("device", "null", times=2), "ERROR TIO", "LE Device is NULL"),
    (fault("device", "error:0x8007048F"), "ERROR EXP", "BluetoothLEDevice> ( -2147023729:"),
    (fault("device", "cancel"), "ERROR EXP", "Cancel on op: "),
    (fault("characteristics", "throw:0x80070490"), "ERROR EXP", "-2147023728"),
    (fault("subscribe:CRTX", "unreachable"), "CONNECT TIO", "UNREACHABLE!"),
    pytest.param(fault("services", "error:0x8007048F"), "ERROR EXP", "GattDeviceServicesResult> ( -2147023729:", marks=NEWER_ONLY),
    pytest.param(fault("session", "throw:0x80070490"), "ERROR EXP", "-2147023728", marks=NEWER_ONLY),
    # The listing that would find the services is a call that an older system does not have.
    pytest.param({"cached_services": []}, "ERROR EXP", "-2147467262", marks=OLDER_ONLY),
    pytest.param(fault("pair", "throw:0x80070490"), "ERROR EXP", "-2147023728", marks=OLDER_ONLY),
    pytest.param(fault("pair", "null"), "CONNECT TIO", "returned NULL status", marks=OLDER_ONLY),
    pytest.param({"pairing": {"kind": 4}}, "CONNECT TIO", "ProvidePin", marks=OLDER_ONLY),
    pytest.param({"pairing": {"kind": 8}}, "CONNECT TIO", "ConfirmPinMatch", marks=OLDER_ONLY),
    pytest.param({"pairing": {"kind": 16}}, "CONNECT TIO", "handler rejected the pairing", marks=OLDER_ONLY),
    pytest.param({"pairing": {"custom": False}}, "CONNECT TIO", "No customized connection possible!", marks=OLDER_ONLY),
])
def test_a_call_that_fails_is_told(rig, settings, line, logged):
    bridge = rig.start(peripheral(**settings))
    bridge.ask(f"connect {ADDRESS}", "OK")
    lines = iter(bridge.shell.line, "")
    assert line in lines
    bridge.program.wait_for_log(logged)
    rig.account(bridge)


@pytest.mark.rigs("sim")
def test_client_of_the_documents(rig):
    runtime = {**os.environ, "XDG_RUNTIME_DIR": str(rig.folder)}
    rig.pipes = [rig.folder / "ZIQBLESh", rig.folder / "ZIQBLECOM"]
    rig.launch().wait_until_serving()
    client = subprocess.run([sys.executable, ROOT / "docs/example_client.py"], env=runtime, capture_output=True, text=True,
                            timeout=30)
    assert (client.returncode, client.stdout) == (0, "OK\nCONNECT TIO\nb'hello'\nOK\n"), client.stderr
