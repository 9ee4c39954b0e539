#pragma once

#include <iosfwd>
#include <memory>

typedef struct _GMainContext GMainContext;

namespace quorvel {
namespace p2pclient {

class IceAgent;
class SctpStack;
class VideoServer;
struct Options;

// The video over SCTP on the pair the agent reached: one association per
// --connections, all at once, each body to its output; the report lines
// ("download ...") go to `report`. Returns the exit status of the first
// connection that failed, ExitSuccess when all ended gracefully; throws
// std::runtime_error when an output cannot be opened or the stack refuses.
int downloadVideo(IceAgent& agent, GMainContext* context, const Options& options, std::ostream& report);

// Standing in for the device's video service (--serve): listens on `stack`
// at once, since the client may associate before this side has seen the pair
// selected (its INIT would meet no listener and be refused).
std::unique_ptr<VideoServer> listenForVideo(SctpStack& stack, const Options& options);

// Serves until the hold time is over, then lets the associations close.
void serveVideo(IceAgent& agent, SctpStack& stack, std::unique_ptr<VideoServer> server, const Options& options);

}  // namespace p2pclient
}  // namespace quorvel
