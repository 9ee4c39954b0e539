#include "tools/p2pclient/datagram_exchange.h"

namespace quorvel {
namespace p2pclient {

DatagramExchange::DatagramExchange(DatagramPath& path, const Settings& settings) : path_(path), settings_(settings) {
  path_.setReceiver([this](const std::uint8_t* data, std::size_t size) { onDatagram(data, size); });
}

DatagramExchange::~DatagramExchange() { path_.setReceiver(nullptr); }

std::string DatagramExchange::testDatagram(unsigned index, unsigned count) {
  // Starts with a letter, so that neither side mistakes it for STUN (whose
  // first two bits are zero).
  return "ferrule-p2pclient test datagram " + std::to_string(index) + " of " + std::to_string(count);
}

bool DatagramExchange::start() {
  bool allTaken = true;
  for (unsigned index = 1; index <= settings_.send; ++index) {
    const std::string datagram = testDatagram(index, settings_.send);
    if (path_.send(reinterpret_cast<const std::uint8_t*>(datagram.data()), datagram.size())) {
      ++sent_;
    } else {
      allTaken = false;
    }
  }
  return allTaken;
}

void DatagramExchange::onDatagram(const std::uint8_t* data, std::size_t size) {
  ++received_;
  if (settings_.echo) path_.send(data, size);
}

}  // namespace p2pclient
}  // namespace quorvel
