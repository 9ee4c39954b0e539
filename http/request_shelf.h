#pragma once

#include <cstddef>
#include <vector>

namespace quorvel {

class NetHttpClientRequest;

// The HTTP client's request objects between uses: taking one back costs no
// allocation of the object, its head's block, its response or its parsers.
// Reactor thread only.
class RequestShelf {
 public:
  // Past this many, objects that come back are freed.
  static constexpr std::size_t Limit = 64;

  RequestShelf() = default;
  ~RequestShelf();
  RequestShelf(const RequestShelf&) = delete;
  RequestShelf& operator=(const RequestShelf&) = delete;

  // An object that has been used before, or null.
  NetHttpClientRequest* take();
  void put(NetHttpClientRequest* request);
  std::size_t size() const { return kept_.size(); }

 private:
  std::vector<NetHttpClientRequest*> kept_;
};

}  // namespace quorvel
