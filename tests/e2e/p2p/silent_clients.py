#!/usr/bin/env python3
"""Silent clients for the flood case of p2p_test.py: session requests
posted to URL + "/sg/sessions", RATE a second and at most AT_ONCE at a
time, each a valid description
whose one candidate is a UDP socket of this process that never reads and
never answers, as a client that asked and then went quiet.

    silent_clients.py URL ADDRESS MIN_COUNT MAX_COUNT RATE AT_ONCE

ADDRESS is this namespace's own address for the candidate. Posting goes on
until the first line (or the end) of standard input has come and MIN_COUNT
requests have been sent, or until MAX_COUNT have been; once every request
sent has its answer it prints one line,
    answers 201=298 503=2 error=0 sent=300 seconds=3.1
and keeps the socket until its standard input closes, so that the device's
checks keep going into silence rather than drawing ICMP errors."""
import http.client
import socket
import sys
import threading
import time
import urllib.parse


def post(url, body):
    """The status of one POST, or "error"."""
    parts = urllib.parse.urlsplit(url)
    connection = http.client.HTTPConnection(parts.hostname, parts.port or 80, timeout=60)
    try:
        connection.request("POST", "/sg/sessions", body, {"Content-Type": "text/plain"})
        response = connection.getresponse()
        response.read()
        return str(response.status)
    except OSError:
        return "error"
    finally:
        connection.close()


def main():
    url, address = sys.argv[1], sys.argv[2]
    minimum, count, rate, at_once = (int(number) for number in sys.argv[3:7])
    silent = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    silent.bind((address, 0))
    port = silent.getsockname()[1]
    answers = {"201": 0, "503": 0, "error": 0}
    lock = threading.Lock()
    numbers = iter(range(count))
    stop = threading.Event()

    def told_to_stop():
        sys.stdin.readline()
        stop.set()

    def worker():
        while True:
            with lock:
                number = next(numbers, None)
            if number is None or (number >= minimum and stop.is_set()):
                return
            delay = started + number / rate - time.monotonic()
            if delay > 0:
                time.sleep(delay)
            body = ("candidate=s%d 1 UDP 2130706431 %s %d typ host\nuserfrag=silent%d\npassword=silentpassword%08d\n"
                    % (number, address, port, number, number))
            status = post(url, body)
            with lock:
                answers[status] = answers.get(status, 0) + 1

    threading.Thread(target=told_to_stop, daemon=True).start()
    started = time.monotonic()
    threads = [threading.Thread(target=worker) for _ in range(at_once)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    print("answers %s sent=%d seconds=%.1f" % (" ".join("%s=%d" % item for item in sorted(answers.items())),
                                                sum(answers.values()), time.monotonic() - started), flush=True)
    stop.wait()
    sys.stdin.read()
    silent.close()


if __name__ == "__main__":
    main()
