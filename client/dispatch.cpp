#include <sys/socket.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <vector>

#include "client/connection.h"
#include "client/guarded.h"

using messaging::Frame;
using messaging::FrameKind;

namespace {

constexpr int kFramesPerCall = 256;  // so that a busy agent does not keep the caller from its other work

// Calls a handler when there is one.
template <class Handler, class... Arguments>
void Call(Handler handler, Arguments... arguments) {
  if (handler != nullptr) handler(arguments...);
}

template <class Handler>
void CallWithItems(Handler handler, void* context, const Frame& frame) {
  if (handler == nullptr) return;
  std::vector<natclient_answer_item> items(frame.answers.size());
  std::transform(frame.answers.begin(), frame.answers.end(), items.begin(),
                 [](const NatRespItem& item) { return std::bit_cast<natclient_answer_item>(item); });
  handler(context, frame.queryId, items.data(), items.size(), frame.value);
}

void CallWithTexts(const natclient_handlers& handlers, void* context, const Frame& frame) {
  if (handlers.notice == nullptr) return;
  std::vector<const char*> texts;
  for (const std::string& text : frame.texts) texts.push_back(text.c_str());
  handlers.notice(context, frame.updateType, texts.data(), texts.size());
}

void Dispatch(const Frame& frame, const natclient_handlers& handlers, void* context) {
  switch (frame.kind) {
    case FrameKind::WELCOME:
      return Call(handlers.welcome, context);
    case FrameKind::CS_ANSWER: {
      const auto mapped = std::bit_cast<natclient_item>(frame.items.front());
      return Call(handlers.cs, context, frame.queryId, &mapped, frame.flag, frame.value);
    }
    case FrameKind::CS_LIST_ANSWER:
      return CallWithItems(handlers.cs_list, context, frame);
    case FrameKind::RTP_ANSWER:
      return CallWithItems(handlers.rtp, context, frame);
    case FrameKind::REVERSE_ANSWER:
      return CallWithItems(handlers.reverse, context, frame);
    case FrameKind::UPDATE_ANSWER:
      return Call(handlers.update, context, frame.queryId, frame.updateType, frame.value);
    case FrameKind::NOTICE:
      return CallWithTexts(handlers, context, frame);
    case FrameKind::REFUSED:
      return Call(handlers.refused, context, frame.queryId, frame.value, frame.text.c_str());
    default:
      return;  // the decoder lets only frames to a party through
  }
}

int DispatchAll(natclient& client, const natclient_handlers& handlers, void* context) {
  for (int frames = 0; frames < kFramesPerCall;) {
    const ssize_t got =
        ::recv(client.fd.Get(), client.incoming.data(), client.incoming.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (got < 0) {
      // An agent that died with requests unread leaves ECONNRESET in front of the answers it had sent.
      if (errno == EINTR || errno == ECONNRESET) continue;
      return errno == EAGAIN ? frames : -errno;
    }
    if (got == 0) {
      client.gone = true;
      Call(handlers.hang_up, context);
      return -ECONNRESET;
    }
    messaging::FrameFault fault;
    const std::string_view packet(client.incoming.data(),
                                  std::min(static_cast<std::size_t>(got), client.incoming.size()));
    if (!messaging::DecodeFrame(packet, messaging::FrameWay::TO_PARTY, client.received, fault)) return -EPROTO;
    Dispatch(client.received, handlers, context);
    ++frames;
  }
  return kFramesPerCall;
}

}  // namespace

int natclient_dispatch(natclient* client, const natclient_handlers* handlers, void* context) {
  if (client == nullptr || handlers == nullptr) return -EINVAL;
  if (client->gone) return -ECONNRESET;
  return natclient_detail::Guarded([&] { return DispatchAll(*client, *handlers, context); });
}
