#!/usr/bin/env python3
"""Talks to the echo server of the examples on a free port: talk_to_echo.py PROGRAM

Prints what came back, and what the server said.
"""

import socket
import subprocess
import sys


def main():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    server = subprocess.Popen([sys.argv[1], str(port)], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    print(server.stdout.readline().strip())
    clients = [socket.create_connection(("127.0.0.1", port), timeout=10) for _ in range(3)]
    for number, client in enumerate(clients):
        client.sendall(f"hello {number}".encode())
    for client in clients:
        print(client.recv(100).decode())
    data = bytes(range(256)) * 1000
    clients[0].sendall(data)
    back = b""
    while len(back) < len(data):
        back += clients[0].recv(65536)
    print("the same" if back == data else "something else")
    server.stdin.close()
    return server.wait(timeout=30)


if __name__ == "__main__":
    sys.exit(main())
