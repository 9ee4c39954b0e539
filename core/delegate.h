#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

#include <boost/function.hpp>

namespace quorvel {
namespace delegate_detail {

// boost::function<R(A...)> derives from boost::functionN<R, A...>, whose
// assignments do not swap; this names that base for any N used here.
template <typename R>
boost::function0<R>& plain(boost::function0<R>&);
template <typename R, typename A>
boost::function1<R, A>& plain(boost::function1<R, A>&);
template <typename R, typename A, typename B>
boost::function2<R, A, B>& plain(boost::function2<R, A, B>&);
template <typename R, typename A, typename B, typename C>
boost::function3<R, A, B, C>& plain(boost::function3<R, A, B, C>&);
template <typename R, typename A, typename B, typename C, typename D>
boost::function4<R, A, B, C, D>& plain(boost::function4<R, A, B, C, D>&);

}  // namespace delegate_detail

// Callbacks are held as Boost.Function so that calling an empty one fails
// with the library's own "call to empty boost::function" error.
//
// Assignment goes through the library's base class: boost::function's own
// builds a temporary and swaps it in, three moves more, and each move of a
// callback that captures a reference is a call through its manager.
template <typename Signature>
class Delegate : public boost::function<Signature> {
  using Function = boost::function<Signature>;
  using Base = std::remove_reference_t<decltype(delegate_detail::plain(std::declval<Function&>()))>;

 public:
  Delegate() = default;
  Delegate(std::nullptr_t) {}
  template <typename Functor, typename = std::enable_if_t<!std::is_base_of_v<Function, Functor> &&
                                                          !std::is_integral_v<Functor>>>
  Delegate(Functor functor) : Function(std::move(functor)) {}
  Delegate(const Delegate&) = default;
  Delegate(Delegate&&) = default;
  Delegate(const Function& other) : Function(other) {}
  Delegate(Function&& other) : Function(std::move(other)) {}
  ~Delegate() = default;

  // The casts matter: given a derived class, the base's template assignment
  // would take the whole delegate as a new target.
  Delegate& operator=(const Delegate& other) {
    Base::operator=(static_cast<const Base&>(other));
    return *this;
  }
  Delegate& operator=(Delegate&& other) {
    Base::operator=(static_cast<Base&&>(other));
    return *this;
  }
  Delegate& operator=(const Function& other) {
    Base::operator=(static_cast<const Base&>(other));
    return *this;
  }
  template <typename Functor, typename = std::enable_if_t<!std::is_base_of_v<Function, Functor>>>
  Delegate& operator=(Functor functor) {
    Base::operator=(std::move(functor));
    return *this;
  }
  Delegate& operator=(std::nullptr_t) {
    this->clear();
    return *this;
  }
};

}  // namespace quorvel
