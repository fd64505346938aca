#include <sys/socket.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

#include "client/connection.h"
#include "client/guarded.h"

using messaging::Frame;
using messaging::FrameKind;
using natclient_detail::Guarded;

static_assert(sizeof(natclient_item) == sizeof(NatItem) && sizeof(natclient_answer_item) == sizeof(NatRespItem));
static_assert(NATCLIENT_MAX_ITEMS == messaging::kMaxItems && NATCLIENT_MAX_TEXTS == messaging::kMaxUpdateTexts &&
              NATCLIENT_MAX_TEXT_BYTES == messaging::kMaxTextBytes);

namespace {

int Send(natclient& client) {
  if (client.gone) return -EPIPE;
  if (!messaging::EncodeFrame(client.request, client.outgoing)) return -EINVAL;
  while (::send(client.fd.Get(), client.outgoing.data(), client.outgoing.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
    if (errno == EINTR) continue;
    if (errno == ECONNRESET || errno == EPIPE) return -EPIPE;
    return errno == ENOBUFS ? -EAGAIN : -errno;
  }
  return 0;
}

Frame& Start(natclient& client, FrameKind kind, uint64_t id, uint32_t value) {
  client.request.kind = kind;
  client.request.queryId = id;
  client.request.value = value;
  return client.request;
}

// A count beyond the limit is refused before the array is looked at.
template <class T>
bool IsArray(const T* array, size_t count, size_t limit) {
  return count <= limit && (array != nullptr || count == 0);
}

bool IsCallAgent(const natclient* client) { return client != nullptr && client->party != NATCLIENT_CGI; }

int SendList(natclient* client, FrameKind kind, uint64_t id, const char* destination, const natclient_item* items,
             size_t count, uint32_t value) {
  if (!IsCallAgent(client) || destination == nullptr || !IsArray(items, count, NATCLIENT_MAX_ITEMS)) return -EINVAL;
  return Guarded([&] {
    Frame& frame = Start(*client, kind, id, value);
    frame.text = destination;
    frame.items.resize(count);
    std::transform(items, items + count, frame.items.begin(),
                   [](const natclient_item& item) { return std::bit_cast<NatItem>(item); });
    return Send(*client);
  });
}

}  // namespace

int natclient_request_cs(natclient* client, uint64_t id, const char* destination, const natclient_item* item,
                         natclient_port_type port_type, uint32_t value) {
  if (!IsCallAgent(client) || destination == nullptr || item == nullptr) return -EINVAL;
  if (static_cast<uint32_t>(port_type) > NATCLIENT_TLS) return -EINVAL;
  return Guarded([&] {
    Frame& frame = Start(*client, FrameKind::CS_REQUEST, id, value);
    frame.text = destination;
    frame.items.assign(1, std::bit_cast<NatItem>(*item));
    frame.portType = port_type;
    return Send(*client);
  });
}

int natclient_request_cs_list(natclient* client, uint64_t id, const char* destination, const natclient_item* items,
                              size_t count, uint32_t value) {
  return SendList(client, FrameKind::CS_LIST_REQUEST, id, destination, items, count, value);
}

int natclient_request_rtp(natclient* client, uint64_t id, const char* destination, const natclient_item* items,
                          size_t count, uint32_t server) {
  return SendList(client, FrameKind::RTP_REQUEST, id, destination, items, count, server);
}

int natclient_request_reverse(natclient* client, uint64_t id, const natclient_item* items, size_t count,
                              uint32_t value) {
  return SendList(client, FrameKind::REVERSE_REQUEST, id, "", items, count, value);
}

int natclient_request_close(natclient* client, uint64_t id) {
  if (!IsCallAgent(client)) return -EINVAL;
  return Guarded([&] {
    Start(*client, FrameKind::CLOSE_REQUEST, id, 0);
    return Send(*client);
  });
}

int natclient_update(natclient* client, uint64_t id, uint32_t type, const char* const* texts, size_t count,
                     uint32_t value) {
  if (client == nullptr || client->party != NATCLIENT_CGI || !IsArray(texts, count, NATCLIENT_MAX_TEXTS)) {
    return -EINVAL;
  }
  if (std::find(texts, texts + count, nullptr) != texts + count) return -EINVAL;
  return Guarded([&] {
    Frame& frame = Start(*client, FrameKind::UPDATE, id, value);
    frame.updateType = type;
    frame.texts.assign(texts, texts + count);
    return Send(*client);
  });
}
