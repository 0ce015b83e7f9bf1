"""Runs programs for Windows under Wine, and opens their named pipes through wine_relay.exe."""
import os
import socket
import subprocess
from pathlib import Path

from bridge_client import check

ROOT = Path(__file__).resolve().parent.parent


class Wine:
    """As bridge_client.Linux. Wine turns the process that is started into the program: its signals and its figures in /proc are
    the program's."""
    run, suffix = [ROOT / "tools/wine_run.sh"], ".exe"

    def __init__(self, build):
        self.relay = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *self.run, build / "tools/wine_relay.exe"],
                                      stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        self.port = int(self.relay.stdout.readline())
        self.processes = {}  # those that serve the pipes, by the pipe's name

    @staticmethod
    def pipe(folder, name):
        return rf"\\.\pipe\{str(folder).replace('/', '-')}-{name}"

    def request(self, text, buffer=0):
        """A connection to the relay, and the words of its answer."""
        connection = socket.socket()
        if buffer:  # bytes that a client does not read stay with the program
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, buffer)
        connection.connect(("127.0.0.1", self.port))
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection.settimeout(20)
        connection.sendall(text.encode() + b"\n")
        answer = b""
        while not answer.endswith(b"\n"):
            check(piece := connection.recv(1), "the relay has ended")
            answer += piece
        return connection, list(map(int, answer.split()))

    def open(self, pipe, buffer=0):
        connection, (error, *process) = self.request(f"open {pipe}", buffer)
        if error:
            connection.close()
            raise (FileNotFoundError if error == 2 else ConnectionRefusedError)(f"{pipe}: error {error}")
        self.processes[pipe] = process[0]
        return connection

    def ask(self, text):
        connection, answer = self.request(text)
        connection.close()
        return answer

    def exists(self, pipe):
        return self.ask(f"exists {pipe}") == [1]

    def resources(self, program):
        """Threads and handles."""
        return self.ask(f"usage {self.processes[program.command]}")

    def close(self):
        self.relay.kill()
        self.relay.wait()
        self.relay.stdout.close()
