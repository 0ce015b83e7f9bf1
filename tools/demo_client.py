"""Plays a session with the simulated program through ziqble and checks every answer: demo_client.py FOLDER-OF-THE-PROGRAMS"""
import os
import re
import shlex
import signal
import subprocess
import sys
import tempfile
import tty
from pathlib import Path

from bridge_client import Deviation, Program, Ziqble, check

ADDRESS = "00:1A:7D:DA:71:13"
ECHO_BYTES = 256 * 1024
STATS = r"RX {0} bytes\. TX {0} bytes\. LC \d+\. RC \d+\. V10\.0\.19041;BLE ON;LE=[^;]+\|;TIO{1}CONNECTED\n"


class Session:
    """ziqble, one command after the other."""

    def __init__(self, executable, program):
        self.ziqble = Ziqble(executable, (program.command, program.data))
        self.answers = 0

    def run(self, *command, wanted="", show=None, **options):
        """Runs a command; what it prints has to match `wanted` as a whole."""
        print(f"$ ziqble {show or shlex.join(command)}", flush=True)
        done = self.ziqble.run(*command, **options)
        print(done.stdout.decode() if wanted else "", done.stderr.decode(), sep="", end="", flush=True)
        check(done.returncode == 0, f"exit code {done.returncode} of {command}")
        check(not wanted or re.fullmatch(wanted, done.stdout.decode()), f"another answer to {command} was expected")
        self.answers += 1
        return done.stdout

    def serve(self, port):
        """A serial port; bytes written to it come back."""
        print(f"$ ziqble serve {ADDRESS} --pty {port.name} &", flush=True)
        with self.ziqble.spawn("serve", ADDRESS, "--pty", port.name, cwd=port.parent, text=True) as server:
            for line in server.stderr:
                print(line, end="", flush=True)
                if "is up" in line:
                    break
            with port.open("r+b", buffering=0) as opened:
                tty.setraw(opened)
                opened.write(b"*IDN?\r")
                print("$ printf '*IDN?\\r' >ttyTIO", flush=True)
                answer = b""
                while len(answer) < 6:
                    answer += opened.read(6)
                print(f"{answer.decode().strip()}    <- what comes back on the serial port", flush=True)
            server.terminate()
            server.stderr.read()
        check(answer == b"*IDN?\r" and server.returncode == 0, "the serial port should echo, and serve should end with 0")
        check(not port.is_symlink(), "the serial port should be gone")
        self.answers += 1


def play(session, folder):
    session.run("exec", "stats", wanted=STATS.format(0, "DIS"))
    session.run("scan", "--time", "1", wanted=f"{ADDRESS.lower()}  TIO-SIM\n")
    sent = os.urandom(ECHO_BYTES)
    echoed = session.run("pipe", ADDRESS, show=f"pipe {ADDRESS} <random >echoed", input=sent)
    check(echoed == sent, "the echoed bytes differ from those sent")
    print(f"{ECHO_BYTES} random bytes sent, the same {len(echoed)} bytes received", flush=True)
    session.run("exec", "stats", wanted=STATS.format(ECHO_BYTES, "DIS"))
    session.serve(folder / "ttyTIO")
    session.run("exit", wanted="the bridge has ended\n")


def check_end(program):
    code = program.wait()
    check(code == 0, f"the program ended with exit code {code}")
    check(len(program.check_end()) == 1, "the peripheral has given no account")
    last = [line.split("| ", 1)[-1].rstrip() for line in program.log_lines(2)]
    check(last == ["Shell pipe terminated...", "Goodbye!"], f"unexpected closing lines in the log: {last}")
    print(f"program: {' / '.join(last)} exit code {code}\n{program.error_text().strip()}")


def run(build, folder):
    program = Program(build / "ZIQBLEConnect-sim", folder)
    try:
        program.wait_until_serving()
        session = Session(build / "ziqble", program)
        play(session, folder)
        check_end(program)
    except (Deviation, OSError, subprocess.TimeoutExpired) as problem:
        sys.stderr.write(program.ends_of_logs(20))
        sys.exit(f"error: {problem}")
    finally:
        program.stop()
    print(f"Verified: {session.answers} commands as expected, {ECHO_BYTES} bytes echoed unchanged, no flow-control violation, "
          "both sockets removed, exit code 0.")


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("error: terminated"))
    with tempfile.TemporaryDirectory(prefix="ziqble-demo-") as temporary:
        run(Path(sys.argv[1]).resolve(), Path(temporary))
