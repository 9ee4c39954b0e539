#pragma once

#include <boost/function.hpp>

namespace quorvel {

// Callbacks are held as Boost.Function so that calling an empty one fails
// with the library's own "call to empty boost::function" error.
template <typename Signature>
using Delegate = boost::function<Signature>;

}  // namespace quorvel
