"""Stopping the programs an end-to-end test started."""
import subprocess


def stop_process(proc, sig):
    """Sends sig, waits up to 10 s, then kills; returns the exit status."""
    if proc.poll() is None:
        proc.send_signal(sig)
        try:
            proc.wait(10)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait(5)
    return proc.returncode
