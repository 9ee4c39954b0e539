"""What the demo, the end-to-end tests and the benchmarks share to start and
stop real programs: network namespaces, throw-away certificates, nginx as the
device's web server, curl as an outside client, process stopping."""
