#pragma once

#include <string>

#include "tools/p2pclient/datagram_path.h"

namespace quorvel {
namespace p2pclient {

// The tool's plain-datagram use of the selected pair, for checking a path
// without SCTP: send numbered test datagrams, send back whatever arrives,
// count what arrives. Two tools with --send/--expect on one side and --echo
// on the other prove the pair in both directions.
class DatagramExchange {
 public:
  struct Settings {
    unsigned send = 0;    // test datagrams to send once started
    bool echo = false;    // answer every datagram with the same bytes
    unsigned expect = 0;  // datagrams to wait for
  };

  DatagramExchange(DatagramPath& path, const Settings& settings);
  ~DatagramExchange();
  DatagramExchange(const DatagramExchange&) = delete;
  DatagramExchange& operator=(const DatagramExchange&) = delete;

  // Sends the test datagrams; returns false when the path refused any.
  bool start();

  bool expectationMet() const { return received_ >= settings_.expect; }
  unsigned sent() const { return sent_; }
  unsigned received() const { return received_; }

  // The datagram `index` (from 1) of `count` sends.
  static std::string testDatagram(unsigned index, unsigned count);

 private:
  void onDatagram(const std::uint8_t* data, std::size_t size);

  DatagramPath& path_;
  Settings settings_;
  unsigned sent_ = 0;
  unsigned received_ = 0;
};

}  // namespace p2pclient
}  // namespace quorvel
