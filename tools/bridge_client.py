"""For all scripts that run the program: the program as a child process, its pipes, and waiting with a deadline."""
import os
import socket
import subprocess
import time


class Deviation(Exception):
    """The program did not do what it should."""


def check(good, what):
    if not good:
        raise Deviation(what)


def wait_until(condition, seconds, what):
    end = time.monotonic() + seconds
    while not condition():
        check(time.monotonic() < end, f"{what} did not happen within {seconds} s")
        time.sleep(0.002)


def open_pipe(path):
    pipe = socket.socket(socket.AF_UNIX)
    pipe.settimeout(20)
    try:
        pipe.connect(str(path))
    except OSError:
        pipe.close()
        raise
    return pipe


class Program:
    """The program with pipes, log and standard error in a folder of its own."""

    def __init__(self, executable, folder, scenario=None, **options):
        self.command, self.data = folder / "command", folder / "data"
        self.log, self.errors = folder / "log", folder / "errors"
        world = {key: value for key, value in os.environ.items() if key != "ZIQBLE_SCENARIO"}
        if scenario:
            world["ZIQBLE_SCENARIO"] = str(scenario)
        with self.log.open("w") as out, self.errors.open("w") as err:
            self.process = subprocess.Popen([executable, "--cmdPipe", self.command, "--datPipe", self.data],
                                            stdin=subprocess.DEVNULL, stdout=out, stderr=err, env=world, **options)

    def running(self):
        return self.process.poll() is None

    def wait_until_serving(self):
        wait_until(lambda: "Waiting for a client" in self.log.read_text() or not self.running(), 20, "the start")
        check(self.running(), "the program ended at its start")

    def log_lines(self, count):
        return self.log.read_text(errors="replace").splitlines(True)[-count:]

    def stop(self):
        if not self.running():
            return
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
