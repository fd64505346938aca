#include "client/natclient.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "client/connection.h"
#include "client/guarded.h"

using namespace natclient_detail;

namespace {

bool IsParty(natclient_party party) {
  return party == NATCLIENT_CGI || (party >= NATCLIENT_SIP && party <= NATCLIENT_CC);
}

int Wait(const natclient* client, short events, int timeoutMs) {
  return client == nullptr ? -EINVAL : WaitFor(client->fd.Get(), events, Deadline(timeoutMs));
}

}  // namespace

int natclient_open(natclient** client, const char* runtime_dir, natclient_party party, int wait_ms) {
  if (client == nullptr) return -EINVAL;
  *client = nullptr;
  if (!IsParty(party)) return -EINVAL;
  return Guarded([&] {
    auto opened = std::make_unique<natclient>();
    opened->party = party;
    opened->incoming.resize(messaging::MaxFrameBytes() + 1);
    const Deadline deadline(wait_ms);
    int result = Connect(*opened, runtime_dir, wait_ms, deadline);
    if (result == 0 && wait_ms != 0) result = AwaitWelcome(*opened, deadline);
    if (result == 0) *client = opened.release();
    return result;
  });
}

void natclient_close(natclient* client) { delete client; }

int natclient_fd(const natclient* client) { return client != nullptr ? client->fd.Get() : -EINVAL; }

int natclient_wait(natclient* client, int timeout_ms) { return Wait(client, POLLIN, timeout_ms); }

int natclient_wait_writable(natclient* client, int timeout_ms) { return Wait(client, POLLOUT, timeout_ms); }

const char* natclient_version() { return NATAGENT_VERSION; }

const char* natclient_strerror(int error) {
  switch (error < 0 ? -error : error) {
    case 0:
      return "success";
    case EBUSY:
      return "another party is connected to the queue";
    case EPERM:
      return "the agent does not allow this user on the queue";
    case ENOENT:
    case ECONNREFUSED:
      return "no agent serves this runtime directory";
    case ETIMEDOUT:
      return "the agent did not answer in time";
    case ECONNRESET:
    case EPIPE:
      return "the agent closed the connection";
    case EAGAIN:
      return "the agent does not read as fast as requests are sent";
    case EPROTO:
      return "the agent sent a frame that is malformed";
    case EINVAL:
      return "invalid argument, or more than a request may carry";
    case ENAMETOOLONG:
      return "the path of the runtime directory is too long for a socket";
    default:
      break;
  }
  const char* text = ::strerrordesc_np(error < 0 ? -error : error);
  return text != nullptr ? text : "unknown error";
}
