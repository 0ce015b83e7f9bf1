"""Streams, traces, the terminal and the ports, with the clients that others wrote."""
import json
import os
import re
import signal
import socket
import subprocess
import termios
import threading
import time

import pytest
from bridge_client import gaps_between, seconds_of, source_bytes, wait_until
from conftest import ADDRESS, WINE, peripheral

pytestmark = pytest.mark.rigs("sim", "sim-wine")
linux_only = pytest.mark.rigs("sim")
pexpect = pytest.importorskip("pexpect")
serial = pytest.importorskip("serial")
SOURCE = source_bytes(20000)


def echo(child, text):
    child.stdin.write(text)
    child.stdin.flush()
    assert child.stdout.read(len(text)) == text


@pytest.mark.parametrize("arguments, world, code, told", [
    ([], {"serial": "sink"}, 0, "20000 bytes sent (0 lost)"),
    (["--bytes", "500"], {"serial": "sink"}, 0, "500 bytes sent (0 lost)"),
    (["--idle", "1"], {"initial_credits": 0}, 7, "grants no credits"),
    # A slow link is none that takes no bytes.
    (["--idle", "1"], {"tx_mtu": 20, "link": {"interval_us": 2500, "packets_per_interval": 1}}, 0, "20000 bytes sent (0 lost)"),
    ([], {"faults": [{"on": "write:RX", "after": 20, "do": "disconnect"}]}, 6, "the link was lost"),
])
def test_send(rig, arguments, world, code, told):
    rig.start_bridge(**peripheral(**world))
    (rig.folder / "sent").write_bytes(SOURCE)
    result = rig.run("send", ADDRESS, rig.folder / "sent", *arguments)
    assert result.returncode == code and told in result.stderr.decode(), result
    least = "at least " if code == 6 else ""
    sent, lost = map(int, re.search(rf"(\d+) bytes sent \({least}(\d+) lost", result.stderr.decode()).groups())
    arrived = rig.moved()[0]
    # What was under way when a link drops counts as sent.
    assert arrived == sent - lost if code != 6 else arrived <= sent - lost <= arrived + 244


@pytest.mark.parametrize("arguments, code", [(["--idle", "2"], 0), (["--idle", "2", "--bytes", "20001"], 7),
                                             (["--bytes", "5000"], 0)])
def test_receive(rig, arguments, code):
    # Paced, so that some are still to come when the data pipe is open.
    rig.start_bridge(**peripheral(serial="source:20000", link={"interval_us": 8000, "packets_per_interval": 1}))
    got = rig.folder / "got"
    result = rig.run("receive", ADDRESS, got, *arguments)
    assert result.returncode == code, result
    if "5000" in arguments:
        assert len(got.read_bytes()) == 5000 and got.read_bytes() in SOURCE
    else:
        assert SOURCE.endswith(got.read_bytes()) and got.read_bytes()
        # What came before anybody could open the data pipe is not passed over in silence.
        assert f"{got.stat().st_size} bytes received ({20000 - got.stat().st_size} lost)" in result.stderr.decode()


@linux_only
def test_killed_client_and_killed_bridge(rig):
    rig.start_bridge()
    trace = rig.folder / "trace.pcapng"
    client = rig.spawn("pipe", ADDRESS, "--trace", trace)
    echo(client, b"hello")
    client.kill()
    seconds, result = seconds_of(lambda: rig.run("stats", "--json"))
    assert not json.loads(result.stdout)["connected"] and seconds < 5, seconds

    fields = subprocess.run(["tshark", "-r", trace, "-T", "fields", "-e", "frame.packet_flags_direction", "-e", "data"],
                            capture_output=True, text=True, check=True).stdout
    # Outbound, then inbound; how the bytes were cut is the bridge's matter.
    packets = [line.split("\t") for line in fields.splitlines()]
    for direction in ("0x00000002", "0x00000001"):
        assert b"hello" == b"".join(bytes.fromhex(data) for way, data in packets if int(way, 16) == int(direction, 16))

    client = rig.spawn("pipe", ADDRESS)
    echo(client, b"hello")
    rig.programs[-1].process.kill()
    assert client.wait(20) == 6 and b"an unknown number lost" in client.stderr.read()


@pytest.mark.parametrize("arguments, ready", [(["serve", "--pty", "tty"], "is up"), (["pipe"], None)])
@linux_only
def test_signals_end_link_and_started_bridge(rig, arguments, ready):
    child = rig.spawn(arguments[0], ADDRESS, *arguments[1:], "--start", "--sim", cwd=rig.folder)
    if ready:
        while ready not in child.stderr.readline().decode():
            assert child.poll() is None
    else:  # while the bridge starts
        wait_until(lambda: os.path.exists(rig.pipes[0]), 20, "the bridge's start")
    for _ in range(3):  # as a shell and a terminal send them
        child.send_signal(signal.SIGTERM)
        time.sleep(0.005)
    assert child.wait(20) == (0 if ready else 128 + signal.SIGTERM)
    assert rig.run("stats").returncode == 3 and not (rig.folder / "tty").is_symlink()


@linux_only
@pytest.mark.parametrize("command", ["serve", "pipe"])
def test_a_command_takes_its_link_down(rig, command):
    rig.start_bridge()
    if command == "serve":
        child, _ = serve(rig, "--pty", rig.folder / "tty")
    else:
        child = rig.spawn("pipe", ADDRESS)
        echo(child, b"?")
    child.terminate()
    assert child.wait(20) == (0 if command == "serve" else 128 + signal.SIGTERM)
    assert not json.loads(rig.run("stats", "--json").stdout)["connected"]


@linux_only
def test_a_bridge_that_hangs_holds_nobody_up(rig):
    rig.start_bridge()
    child = rig.spawn("pipe", ADDRESS)
    echo(child, b"hello")
    rig.programs[-1].process.send_signal(signal.SIGSTOP)
    child.send_signal(signal.SIGINT)
    seconds, code = seconds_of(lambda: child.wait(20))
    rig.programs[-1].process.send_signal(signal.SIGCONT)
    assert code == 130 and seconds < 10


class Terminal:
    """A terminal with ziqble in it."""

    def __init__(self, rig, *arguments):
        program, *options = map(str, rig.ziqble.command)
        self.child = pexpect.spawn(program, [*options, "term", ADDRESS, *arguments], timeout=20, echo=False,
                                   cwd=rig.folder)
        self.before = termios.tcgetattr(self.child.child_fd)
        self.child.expect_exact("Ctrl-] q leaves]")

    def check(self, typed, *shown):
        self.child.send(typed)
        for text in shown:
            (self.child.expect_exact if isinstance(text, str) else self.child.expect)(text)

    def end(self):
        self.child.expect(pexpect.EOF)
        self.child.wait()
        assert termios.tcgetattr(self.child.child_fd) == self.before
        return self.child.exitstatus


# What is typed, and what is shown then; a list has expressions, of which one has to fit.
SETTINGS = [
    ("abc", "abc"), ("\x1ds", "sent 3 bytes"), ("\x1dh", "show hex: on"), ("\r", "0d "), ("\x1dn", "end of line: lf"),
    ("\x1dx", "type hex: on"), ("7e7f\x7f\x7f 21\r", "7e 21 "), ("7\r", "not sent"), ("\x1dx\x1dh\x1dl", "whole lines: on"),
    ("one\x7f\x7ftwo\r", "one\b \b\b \btwo\r\n", "otwo\r\n"), ("\x1dffile\r", ["11 bytes of.*from a file", "from a file.*11 bytes of"]),
    ("\x1dr", "Ctrl-] q leaves]"), ("again\r", "again\r\nagain\r\n"),
]
LOSSES = [("a", "a"), ("b", "r reconnects, Ctrl-] q leaves"), ("typed in ignorance of it: qr\x1dr", "Ctrl-] q leaves]"),
          ("c", "r reconnects, Ctrl-] q leaves")]
# Its own question, or the menu, is answered while a file cannot go.
NO_CREDITS = [("\x1df\r", "no file is sent"), ("\x1dflarge\r", "\n"), ("\x1ds", "sent"), ("typed",)]


@linux_only
@pytest.mark.parametrize("arguments, world, steps, code, arrived", [
    ([], {}, SETTINGS, 0, 28),
    ([], {"faults": [{"on": "write:RX", "after": 1, "times": 2, "do": "disconnect"}]}, LOSSES, 6, 1),
    ([], {"initial_credits": 0}, NO_CREDITS, 0, 0),
    (["--line", "--eol", "none"], {}, [("\u00e9\x7fa\r", "\r\na")], 0, 1),  # a line is edited by characters
])
def test_terminal(rig, arguments, world, steps, code, arrived):
    rig.start_bridge(**peripheral(**world))
    (rig.folder / "file").write_bytes(b"from a file")
    (rig.folder / "large").write_bytes(SOURCE)
    terminal = Terminal(rig, *arguments)
    for typed, *shown in steps:
        terminal.check(typed, *shown)
    terminal.child.send("\x1dq")
    assert terminal.end() == code and rig.moved() == (arrived, arrived)


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGUSR1])
@linux_only
def test_terminal_is_as_before_after_a_signal(rig, number):
    rig.start_bridge()
    terminal = Terminal(rig)
    terminal.child.kill(number)
    assert terminal.end() == 128 + number


def serve(rig, *arguments):
    return rig.ziqble.serve(ADDRESS, "--retry-max", "1", *arguments)


@linux_only
def test_serial_port_outlives_a_hundred_drops(rig):
    drops = 100
    faults = [{"on": "write:RX", "after": 8 * number, "do": "disconnect"} for number in range(1, drops + 1)]
    rig.start_bridge(**peripheral(faults=faults))
    link = rig.folder / "ttyTIO"
    child, events = serve(rig, "--pty", link)
    sent, received = os.urandom(1_200_000), bytearray()
    with serial.Serial(str(link), timeout=0.2) as port:
        sender = threading.Thread(target=port.write, args=(sent,), daemon=True)
        sender.start()
        last = time.monotonic()
        while sender.is_alive() or time.monotonic() < last + 2:
            piece = port.read(4096)
            received += piece
            last = time.monotonic() if piece else last
            assert time.monotonic() < last + 30, "nothing comes any more"
    child.terminate()
    assert child.wait(20) == 0 and not link.is_symlink()

    losses = [event for event in events("lost") if "TIO DROP" in event["text"] or "STATUS CLOSED" in event["text"]]
    assert len(losses) == drops and len(events("up")) == drops + 1
    # What came is what was sent but for the gaps: in its order, and nothing twice.
    assert len(gaps_between(sent, received, (8, 4, 2))) <= drops
    told = sum(event["lost_to_peripheral"] for event in events("lost"))
    arrived = rig.moved()[0]
    # The packet under way when a link drops counts as sent.
    assert len(sent) - told - drops * 244 <= arrived <= len(sent) - told


@linux_only
def test_programs_come_and_go_on_the_serial_port(rig):
    rig.start_bridge()
    link = rig.folder / "ttyTIO"
    serve(rig, "--pty", link)
    picocom = pexpect.spawn("picocom", ["-q", "-b", "115200", str(link)], timeout=20)
    # Sent before it has set up the port, a key would go lost.
    wait_until(lambda: picocom.send("?") and picocom.expect(["\\?", pexpect.TIMEOUT], timeout=0.2) == 0, 20, "picocom")
    picocom.send("picocom")
    picocom.expect_exact("picocom")
    picocom.send("\x01\x11")
    picocom.expect(pexpect.EOF)
    for text in (b"first", b"second"):
        with serial.Serial(str(link), timeout=20) as port:
            port.write(text)
            assert port.read(len(text)) == text


@linux_only
def test_serial_port_replaces_only_what_a_dead_one_left(rig):
    rig.start_bridge()
    link = rig.folder / "tty"
    link.write_text("precious")
    assert rig.run("serve", ADDRESS, "--pty", link).returncode == 1 and link.read_text() == "precious"
    link.unlink()
    link.symlink_to(rig.folder)
    assert rig.run("serve", ADDRESS, "--pty", link).returncode == 1 and link.resolve() == rig.folder
    link.unlink()
    link.symlink_to("/dev/pts/987654")
    dead, events = serve(rig, "--pty", link)
    dead.kill()
    dead.wait()
    assert link.is_symlink()
    serve(rig, "--pty", link)
    events.wait("up", 2)
    port = link.readlink()
    assert rig.run("serve", ADDRESS, "--pty", link).returncode == 1 and link.readlink() == port


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as free:
        return free.getsockname()[1]


def test_tcp_port_serves_one_client_after_another_when_no_bytes_go(rig):
    rig.start_bridge(**peripheral(initial_credits=0))
    number = free_port()
    _, events = serve(rig, "--tcp", str(number))
    # The first one sends more than the data pipe and ziqble hold, so that its end waits behind its bytes. Wine does not show that.
    for count, size in (1, 30_000 if WINE else 100_000), (2, 30_000):
        with socket.create_connection(("127.0.0.1", number)) as client:
            client.settimeout(20)
            client.sendall(bytes(size))
            events.wait("opened", count)
            with socket.create_connection(("127.0.0.1", number)) as second:
                second.settimeout(20)
                assert second.recv(1) == b""
    # That the second one has gone shows when another one comes.
    socket.create_connection(("127.0.0.1", number)).close()
    events.wait("opened", 3)
    assert len(events("closed")) >= 2 and len(events("refused")) == 2


@linux_only
def test_tcp_port_outlives_the_bridge(rig):
    first = rig.start_bridge()
    number = free_port()
    child, events = serve(rig, "--tcp", str(number))
    client = subprocess.Popen(["socat", "-", f"TCP:127.0.0.1:{number}"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    rig.ziqble.children.append(client)
    for round_number in range(2):
        echo(client, b"hello")
        if round_number == 0:
            first.process.kill()
            first.process.wait()
            events.wait("lost")
            rig.start_bridge()
            events.wait("up", 2)
    child.send_signal(signal.SIGINT)
    assert child.wait(20) == 0
