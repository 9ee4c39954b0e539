#pragma once

namespace quorvel {
namespace p2pclient {

// The tool's exit statuses, one per step that can fail, so that scripts can
// tell them apart without reading the message.
enum ExitStatus {
  ExitSuccess = 0,
  ExitLocalFailure = 1,    // libnice, the STUN server's name, standard input
  ExitUsage = 2,           // bad command line
  ExitRelayFailure = 3,    // the relay could not be reached or gave no answer
  ExitDeviceRefused = 4,   // "/sg/sessions" answered other than 201, or not a description
  ExitIceFailure = 5,      // the checks failed or did not finish in time
  ExitDatagramFailure = 6,  // fewer test datagrams came back than expected
  ExitAssociationFailure = 7,  // the device refused the SCTP association, or it did not come up in time
  ExitStreamCut = 8            // the video stream was aborted, lost or stalled before its graceful end
};

}  // namespace p2pclient
}  // namespace quorvel
