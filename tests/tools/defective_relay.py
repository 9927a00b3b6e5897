#!/usr/bin/env python3
"""Passes connections on, with a planted defect: defective_relay.py LISTEN CONNECT.

A piece of what a client sends that begins with a quotation mark loses it.
"""

import socket
import sys
import threading


def pass_on(source, target, is_defective):
    try:
        while data := source.recv(65536):
            target.sendall(data[1:] if is_defective and data.startswith(b'"') else data)
        target.shutdown(socket.SHUT_WR)
    except OSError:
        source.close()


def main(listen, connect):
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(listen)
    listener.listen(128)
    print("ready", flush=True)
    while True:
        client, _ = listener.accept()
        daemon = socket.socket(socket.AF_UNIX)
        daemon.connect(connect)
        for ends in ((client, daemon, True), (daemon, client, False)):
            threading.Thread(target=pass_on, args=ends, daemon=True).start()


main(*sys.argv[1:])
