#!/usr/bin/env python3
"""A web server that misbehaves on purpose, behind nginx in the p2p tests:

    GET ...?odd=early    200 with a Content-Length of 10 MB, 100 kB of it, then close
    GET ...?odd=silent   reads the request and never answers (gives up after 180 s)

    odd_target.py PORT    (listens on 127.0.0.1, prints "listening" when ready)"""
import socket
import sys
import threading
import time


def serve(connection):
    with connection:
        connection.settimeout(180)
        request = b""
        while b"\r\n\r\n" not in request:
            data = connection.recv(4096)
            if not data:
                return
            request += data
        if b"odd=early" in request.split(b"\r\n", 1)[0]:
            connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 10000000\r\nConnection: close\r\n\r\n")
            connection.sendall(b"e" * 100000)
            return
        deadline = time.monotonic() + 180
        while time.monotonic() < deadline:
            try:
                if not connection.recv(4096):
                    return
            except socket.timeout:
                return


def main():
    server = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    server.bind(("127.0.0.1", int(sys.argv[1])))
    server.listen(16)
    print("listening", flush=True)
    while True:
        connection, _ = server.accept()
        threading.Thread(target=serve, args=(connection,), daemon=True).start()


if __name__ == "__main__":
    main()
