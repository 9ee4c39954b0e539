#pragma once

#include <iosfwd>

typedef struct _GMainContext GMainContext;

namespace quorvel {
namespace p2pclient {

class IceAgent;
class SctpStack;
struct Options;

// The video over SCTP on the pair the agent reached: one association per
// --connections, all at once, each body to its output; the report lines
// ("download ...") go to `report`. Returns the exit status of the first
// connection that failed, ExitSuccess when all ended gracefully; throws
// std::runtime_error when an output cannot be opened or the stack refuses.
int downloadVideo(IceAgent& agent, GMainContext* context, const Options& options, std::ostream& report);

// Standing in for the device's video service (--serve) on `stack` until the
// hold time is over, then letting the associations close.
void serveVideo(IceAgent& agent, SctpStack& stack, const Options& options);

}  // namespace p2pclient
}  // namespace quorvel
