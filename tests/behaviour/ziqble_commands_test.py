"""The commands, their output and their exit codes; on Linux, and under Wine on named pipes."""
import json
import os
import signal
import subprocess

import pytest
from bridge_client import seconds_of
from conftest import ADDRESS, peripheral

pytestmark = pytest.mark.rigs("sim", "sim-wine")
linux_only = pytest.mark.rigs("sim")

# One session after another with the same bridge: arguments, exit code, what is printed, what is complained of.
SESSION = [
    (["scan", "--time", "1", "--json"], 0, '{"devices":[{"address":"00:1a:7d:da:71:13","name":"Caf\u00e9, 2"}]}', ""),
    (["connect", ADDRESS], 0, "connected to " + ADDRESS, ""),
    (["exec", "stats"], 0, ";TIOCONNECTED", ""),
    (["disconnect", "--json"], 0, '{"connected":false}', ""),
    (["exec", "connect " + ADDRESS, "disconnect"], 0, "OK\nCONNECT TIO\nOK", ""),
    (["reset"], 0, "the radio was switched off and on", ""),
    (["connect", "00:1A:7D:DA:71:99"], 5, "", "no such peripheral in range"),
    (["connect", "--json", "00:1A:7D:DA:71:99"], 5, "", '"code":5'),
    (["exec", "--time", "0.3", "nonsense"], 7, "", "did not answer \"nonsense\""),
    (["connect", "00:1A:7D"], 2, "", "six hexadecimal bytes"),
    (["serve", ADDRESS], 2, "", "--pty,--tcp"),
    (["receive", ADDRESS, "--bytes", "-1"], 2, "", '"-1" is no number'),
    (["receive", ADDRESS, "--idle", "nan"], 2, "", '"nan" is no number'),
    (["serve", ADDRESS, "--pty", ""], 2, "", "empty"),
    (["frob", "--json"], 2, "", '"code":2'),
    (["connect", ADDRESS, "--time", "0.001"], 7, "", "--time gives it more"),
    (["exec", "stats"], 0, ";TIODISCONNECTED", ""),
    (["connect", ADDRESS, "--start"], 2, "", "the link would end with the bridge"),
    ([], 2, "", "A command is required"),
    (["send", ADDRESS, "no-such-file"], 2, "", "no-such-file"),
    (["exit"], 0, "the bridge has ended", ""),
    (["stats"], 3, "", "Start ZIQBLEConnect"),
]


def test_session(rig):
    rig.start_bridge(adapters=[{"name": "A+B"}, {"name": "Two;", "lmp": 5}], **peripheral(name="Caf\u00e9, 2"))
    wanted = {"rx": 0, "tx": 0, "local_credits": 0, "remote_credits": 0, "version": "10.0.19041", "bluetooth": "ON",
              "adapters": [{"name": "A+B", "lmp": 9}, {"name": "Two;", "lmp": 5}], "connected": False}
    assert json.loads(rig.run("stats", "--json").stdout) == wanted
    for arguments, code, printed, complaint in SESSION:
        result = rig.run(*arguments)
        output = result.stdout.decode().replace("\r\n", "\n"), result.stderr.decode().replace("\r\n", "\n")
        assert result.returncode == code, (arguments, output)
        assert printed in output[0] and complaint in output[1], (arguments, output)


def test_bytes_go_both_ways(rig):
    rig.start_bridge()
    sent = os.urandom(30000)
    result = rig.run("pipe", ADDRESS, "--idle", "3", input=sent)
    assert (result.returncode, result.stdout) == (0, sent), result.stderr
    assert b"30000 bytes sent (0 lost), 30000 bytes received (0 lost)" in result.stderr
    assert rig.moved() == (30000, 30000)


def test_program_is_started_and_ended(rig):
    result = rig.run("pipe", ADDRESS, "--start", "--sim", "--bytes", "5", input=b"hello")
    assert (result.returncode, result.stdout) == (0, b"hello"), result.stderr
    assert rig.run("stats").returncode == 3


@linux_only
def test_busy_pipe_is_told_and_its_link_stays(rig):
    other = rig.start()
    other.ask(f"connect {ADDRESS}", "OK", "CONNECT TIO")
    seconds, result = seconds_of(lambda: rig.run("stats"))
    assert result.returncode == 4 and b"--wait" in result.stderr and seconds < 5, (seconds, result)
    impatient, waiting = rig.spawn("--wait", "stats"), rig.spawn("--wait", "stats", "--json")
    for child in impatient, waiting:
        assert b"waiting until another client" in child.stderr.readline()
    impatient.send_signal(signal.SIGINT)
    assert impatient.wait(20) == 130
    other.shell.command("quit")
    # Neither those that gave up nor the other's end have stopped the link.
    assert json.loads(waiting.communicate(timeout=20)[0])["connected"]


@linux_only
def test_output_that_cannot_be_written_is_told(rig):
    rig.start_bridge()
    with open("/dev/full", "w") as full:
        result = rig.run("stats", capture_output=False, stdout=full, stderr=subprocess.PIPE)
    assert result.returncode == 1 and b"cannot write to standard output" in result.stderr
    result = subprocess.run(["sh", "-c", '"$@" <&-', "sh", *rig.ziqble.command, "pipe", ADDRESS], capture_output=True, timeout=20)
    assert result.returncode == 1 and b"cannot read standard input" in result.stderr
    assert rig.moved() == (0, 0)
