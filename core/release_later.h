#pragma once

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "core/lifetime.h"
#include "core/reactor.h"

namespace quorvel {

// Takes the element `raw` points to out of `list` (null when it is not
// there) and keeps it alive until a later event of the reactor: for owners
// told from inside one of their objects' own callbacks that it is done.
template <typename T>
void releaseLater(Reactor& reactor, const LifetimeToken& token, std::vector<std::shared_ptr<T>>& list, const T* raw) {
  auto found = std::find_if(list.begin(), list.end(), [raw](const std::shared_ptr<T>& item) { return item.get() == raw; });
  if (found == list.end()) return;
  std::shared_ptr<T> held = std::move(*found);
  list.erase(found);
  reactor.post(token, [held] {});
}

}  // namespace quorvel
