#pragma once

#include <cstdint>

namespace quorvel {

// The SCTP stack's clock. usrsctp, built for user space, reads gettimeofday()
// for every time it keeps: when a chunk was sent, round-trip times, the
// retransmission timer's "sent at least one RTO ago". (Its kernel originals
// read the uptime clock.) A wall clock that NTP steps back by an hour then
// makes every chunk in flight look too young to resend, and the association
// dies of its own retransmission limit at the first loss.
//
// So this process's gettimeofday() runs on the monotonic clock, anchored to
// the wall clock once, at its first call, so that its values still read as
// dates. Nothing else here asks gettimeofday() for a date: the program's own
// wall clock (SystemTimeProvider) reads CLOCK_REALTIME, OpenSSL checks
// certificates against time(), and the C library's own calls do not go
// through the exported symbol.
//
// Returns the stack clock's reading in microseconds. The stack service reads
// it as it starts the stack, which anchors it and links the replacement in.
uint64_t stackClockMicroseconds();

}  // namespace quorvel
