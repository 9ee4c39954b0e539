#include "tools/p2pclient/ice_agent.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

#include <agent.h>
#include <glib.h>

namespace quorvel {
namespace p2pclient {

namespace {

constexpr unsigned Component = 1;

// The main context is woken at least this often while waiting, so that a
// limit is noticed even when no packet or libnice timer is due.
constexpr unsigned WakeMilliseconds = 20;

const char* typeText(NiceCandidateType type) {
  switch (type) {
    case NICE_CANDIDATE_TYPE_HOST:
      return "host";
    case NICE_CANDIDATE_TYPE_SERVER_REFLEXIVE:
      return "srflx";
    case NICE_CANDIDATE_TYPE_PEER_REFLEXIVE:
      return "prflx";
    case NICE_CANDIDATE_TYPE_RELAYED:
      return "relay";
  }
  return "unknown";
}

bool typeFromText(const std::string& text, NiceCandidateType& type) {
  if (text == "host") {
    type = NICE_CANDIDATE_TYPE_HOST;
  } else if (text == "srflx") {
    type = NICE_CANDIDATE_TYPE_SERVER_REFLEXIVE;
  } else if (text == "prflx") {
    type = NICE_CANDIDATE_TYPE_PEER_REFLEXIVE;
  } else if (text == "relay") {
    type = NICE_CANDIDATE_TYPE_RELAYED;
  } else {
    return false;
  }
  return true;
}

std::string hostText(const NiceAddress& address) {
  char text[NICE_ADDRESS_STRING_LEN] = {};
  nice_address_to_string(&address, text);
  return text;
}

// "a.b.c.d:port" or "[v6]:port", as the device prints socket addresses.
std::string addressText(const NiceAddress& address) {
  const std::string host = hostText(address);
  const std::string port = std::to_string(nice_address_get_port(&address));
  return nice_address_ip_version(&address) == 6 ? "[" + host + "]:" + port : host + ":" + port;
}

bool unreachableFromDevice(const NiceAddress& address) {
  sockaddr_storage storage{};
  nice_address_copy_to_sockaddr(&address, reinterpret_cast<sockaddr*>(&storage));
  if (storage.ss_family == AF_INET6) {
    const auto& ip = reinterpret_cast<const sockaddr_in6&>(storage).sin6_addr;
    return IN6_IS_ADDR_LINKLOCAL(&ip) || IN6_IS_ADDR_LOOPBACK(&ip);
  }
  return (ntohl(reinterpret_cast<const sockaddr_in&>(storage).sin_addr.s_addr) >> 24) == 127;
}

const char* stateText(unsigned state) {
  return nice_component_state_to_string(static_cast<NiceComponentState>(state));
}

}  // namespace

IceAgent::IceAgent(GMainContext* context, const Settings& settings) : context_(context) {
  agent_ = nice_agent_new_full(context_, NICE_COMPATIBILITY_RFC5245, NICE_AGENT_OPTION_REGULAR_NOMINATION);
  if (agent_ == nullptr) throw IceError("libnice could not make an agent");
  g_object_set(agent_, "controlling-mode", settings.controlling ? TRUE : FALSE, "upnp", FALSE, "ice-tcp", FALSE,
               "ice-udp", TRUE, nullptr);
  if (!settings.stunAddress.empty()) {
    g_object_set(agent_, "stun-server", settings.stunAddress.c_str(), "stun-server-port",
                 static_cast<unsigned>(settings.stunPort), nullptr);
  }
  for (const auto& text : settings.localAddresses) {
    NiceAddress address;
    nice_address_init(&address);
    if (!nice_address_set_from_string(&address, text.c_str()) || !nice_agent_add_local_address(agent_, &address)) {
      g_object_unref(agent_);
      throw IceError("libnice cannot use the local address " + text);
    }
  }
  stream_ = nice_agent_add_stream(agent_, 1);
  if (stream_ == 0) {
    g_object_unref(agent_);
    throw IceError("libnice could not add a stream");
  }
  g_signal_connect(agent_, "candidate-gathering-done", G_CALLBACK(&IceAgent::onGatheringDone), this);
  g_signal_connect(agent_, "component-state-changed", G_CALLBACK(&IceAgent::onStateChanged), this);
  g_signal_connect(agent_, "new-selected-pair-full", G_CALLBACK(&IceAgent::onSelectedPair), this);
  // Without a receive callback libnice never reads the socket, so no STUN
  // either.
  nice_agent_attach_recv(agent_, stream_, Component, context_, &IceAgent::onReceive, this);
}

IceAgent::~IceAgent() {
  nice_agent_attach_recv(agent_, stream_, Component, context_, nullptr, nullptr);
  g_signal_handlers_disconnect_by_data(agent_, this);
  nice_agent_remove_stream(agent_, stream_);
  g_object_unref(agent_);
}

bool IceAgent::gather(std::chrono::milliseconds limit) {
  if (!nice_agent_gather_candidates(agent_, stream_)) throw IceError("libnice found no local address to gather on");
  return runUntil([this] { return gathered_; }, limit);
}

Description IceAgent::localDescription() const {
  Description description;
  gchar* fragment = nullptr;
  gchar* password = nullptr;
  if (!nice_agent_get_local_credentials(agent_, stream_, &fragment, &password)) {
    throw IceError("libnice has no local credentials");
  }
  description.userFragment = fragment;
  description.password = password;
  g_free(fragment);
  g_free(password);

  GSList* candidates = nice_agent_get_local_candidates(agent_, stream_, Component);
  for (GSList* item = candidates; item != nullptr; item = item->next) {
    const auto* candidate = static_cast<const NiceCandidate*>(item->data);
    if (candidate->transport != NICE_CANDIDATE_TRANSPORT_UDP || unreachableFromDevice(candidate->addr)) continue;
    CandidateLine line;
    line.foundation = candidate->foundation;
    line.priority = candidate->priority;
    line.address = hostText(candidate->addr);
    line.port = static_cast<std::uint16_t>(nice_address_get_port(&candidate->addr));
    line.type = typeText(candidate->type);
    description.candidates.push_back(line);
  }
  g_slist_free_full(candidates, reinterpret_cast<GDestroyNotify>(&nice_candidate_free));
  return description;
}

void IceAgent::setRemote(const Description& remote) {
  if (!nice_agent_set_remote_credentials(agent_, stream_, remote.userFragment.c_str(), remote.password.c_str())) {
    throw IceError("libnice refused the device's credentials");
  }
  GSList* candidates = nullptr;
  for (const auto& line : remote.candidates) {
    NiceCandidateType type;
    if (!typeFromText(line.type, type)) continue;
    NiceCandidate* candidate = nice_candidate_new(type);
    candidate->stream_id = stream_;
    candidate->component_id = Component;
    candidate->transport = NICE_CANDIDATE_TRANSPORT_UDP;
    candidate->priority = line.priority;
    // libnice keeps 32 characters of a foundation; a longer one would only
    // merge unfreezing groups, never break a check.
    g_strlcpy(candidate->foundation, line.foundation.c_str(), NICE_CANDIDATE_MAX_FOUNDATION);
    if (!nice_address_set_from_string(&candidate->addr, line.address.c_str())) {
      nice_candidate_free(candidate);
      continue;
    }
    nice_address_set_port(&candidate->addr, line.port);
    candidate->base_addr = candidate->addr;
    candidates = g_slist_append(candidates, candidate);
  }
  const int added = candidates == nullptr ? 0 : nice_agent_set_remote_candidates(agent_, stream_, Component, candidates);
  g_slist_free_full(candidates, reinterpret_cast<GDestroyNotify>(&nice_candidate_free));
  if (added <= 0) throw IceError("libnice took none of the device's candidates");
  trace("libnice took " + std::to_string(added) + " of " + std::to_string(remote.candidates.size()) +
        " remote candidates");
}

IceAgent::Outcome IceAgent::connect(std::chrono::milliseconds limit) {
  const auto usable = [this] {
    return state_ == NICE_COMPONENT_STATE_READY || (selected_ && state_ == NICE_COMPONENT_STATE_CONNECTED);
  };
  runUntil([&] { return usable() || state_ == NICE_COMPONENT_STATE_FAILED; }, limit);
  if (usable()) return Outcome::Connected;
  return state_ == NICE_COMPONENT_STATE_FAILED ? Outcome::Failed : Outcome::TimedOut;
}

SelectedPair IceAgent::selectedPair() const {
  NiceCandidate* local = nullptr;
  NiceCandidate* remote = nullptr;
  if (!nice_agent_get_selected_pair(agent_, stream_, Component, &local, &remote)) {
    throw IceError("libnice has no selected pair");
  }
  SelectedPair pair;
  pair.local = PairEnd{addressText(local->addr), addressText(local->base_addr), typeText(local->type)};
  // A remote candidate's base means nothing here: it is where we send to.
  pair.remote = PairEnd{addressText(remote->addr), addressText(remote->addr), typeText(remote->type)};
  return pair;
}

bool IceAgent::runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  GSource* wake = g_timeout_source_new(WakeMilliseconds);
  g_source_set_callback(wake, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
  g_source_attach(wake, context_);
  while (!done() && std::chrono::steady_clock::now() < deadline) g_main_context_iteration(context_, TRUE);
  g_source_destroy(wake);
  g_source_unref(wake);
  return done();
}

bool IceAgent::send(const std::uint8_t* data, std::size_t size) {
  if (state_ != NICE_COMPONENT_STATE_READY && state_ != NICE_COMPONENT_STATE_CONNECTED) return false;
  return nice_agent_send(agent_, stream_, Component, static_cast<unsigned>(size), reinterpret_cast<const char*>(data)) ==
         static_cast<int>(size);
}

void IceAgent::setReceiver(Receiver receiver) { receiver_ = std::move(receiver); }

void IceAgent::onGatheringDone(NiceAgent*, unsigned, void* self) {
  auto* agent = static_cast<IceAgent*>(self);
  agent->gathered_ = true;
  agent->trace("gathering done");
}

void IceAgent::onSelectedPair(NiceAgent*, unsigned, unsigned component, void*, void*, void* self) {
  if (component != Component) return;
  auto* agent = static_cast<IceAgent*>(self);
  agent->selected_ = true;
  agent->trace("pair selected");
}

void IceAgent::onStateChanged(NiceAgent*, unsigned, unsigned component, unsigned state, void* self) {
  if (component != Component) return;
  auto* agent = static_cast<IceAgent*>(self);
  agent->state_ = state;
  agent->trace(std::string("ICE state ") + stateText(state));
}

void IceAgent::onReceive(NiceAgent*, unsigned, unsigned, unsigned size, char* data, void* self) {
  auto* agent = static_cast<IceAgent*>(self);
  if (agent->receiver_) agent->receiver_(reinterpret_cast<const std::uint8_t*>(data), size);
}

void IceAgent::trace(const std::string& text) const {
  if (trace_) trace_(text);
}

}  // namespace p2pclient
}  // namespace quorvel
