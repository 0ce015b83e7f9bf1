#!/usr/bin/env python3
"""Sends a few bytes to the peripheral and prints what comes back."""
import os, socket, tempfile

folder = os.environ.get("XDG_RUNTIME_DIR") or f"{tempfile.gettempdir()}/ziqbleconnect-{os.getuid()}"

def open_pipe(name):
    pipe = socket.socket(socket.AF_UNIX)
    pipe.settimeout(10)
    pipe.connect(f"{folder}/{name}")
    return pipe

shell = open_pipe("ZIQBLESh")
lines = shell.makefile()
shell.sendall(b"connect 00:1A:7D:DA:71:13\n")
print(lines.readline().strip(), "/", lines.readline().strip())  # OK / CONNECT TIO
data = open_pipe("ZIQBLECOM")
data.sendall(b"hello")
print(data.recv(2048))                                          # b'hello'
shell.sendall(b"disconnect\n")
print(lines.readline().strip())                                 # OK
