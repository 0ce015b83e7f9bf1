#!/usr/bin/env python3
"""Sends a few bytes to the peripheral and prints what comes back."""
import os, socket, sys, tempfile

folder = os.environ.get("XDG_RUNTIME_DIR") or f"{tempfile.gettempdir()}/ziqbleconnect-{os.getuid()}"
link_lines = ("CONNECT TIO", "ERROR TIO", "ERROR EXP", "STATUS CLOSED", "TIO DROP")  # these can come at any time

def open_pipe(name):
    pipe = socket.socket(socket.AF_UNIX)
    pipe.settimeout(30)  # also while another client has the pipe
    pipe.connect(f"{folder}/{name}")
    return pipe

def next_line(of_the_link):
    for line in lines:
        if (line.strip() in link_lines) == of_the_link:
            return line.strip()
    sys.exit("the program has ended")

try:
    shell = open_pipe("ZIQBLESh")
    lines = shell.makefile()
    shell.sendall(b"connect 00:1A:7D:DA:71:13\n")
    print(answer := next_line(of_the_link=False))                   # OK
    outcome = next_line(of_the_link=True) if answer == "OK" else answer
    print(outcome)                                                  # CONNECT TIO
    if outcome != "CONNECT TIO":
        sys.exit("the link did not come up")
    data = open_pipe("ZIQBLECOM")
    data.sendall(b"hello")
    print(data.recv(2048) or "the link was lost")                   # b'hello'
    shell.sendall(b"disconnect\n")
    print(next_line(of_the_link=False))                             # OK
except OSError as error:  # no program there, it has gone, or it serves another client
    sys.exit(f"the program does not answer: {error}")
