#include "platform/messaging/peer.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>

#include "platform/unique_fd.h"

namespace messaging {

Peer Peer::Of(int socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
    return {};
  }
  Peer peer;
  peer.pid = credentials.pid;
  peer.uid = credentials.uid;
  return peer;
}

void Peer::LookAtProgram() {
  const UniqueFd file(::open(("/proc/" + std::to_string(pid) + "/comm").c_str(), O_RDONLY | O_CLOEXEC));
  char name[64];
  const ssize_t length = file ? ::read(file.Get(), name, sizeof name) : -1;
  if (length > 1) {
    program.assign(name, static_cast<std::size_t>(length) - 1);  // without the line end
    std::replace_if(
        program.begin(), program.end(), [](char c) { return c < 0x20 || c > 0x7E; }, '?');
  }
}

std::string Peer::ProcessText() const { return pid > 0 ? "process " + std::to_string(pid) : "an unknown process"; }

std::string Peer::Text() const { return ProcessText() + ", user " + std::to_string(uid) + ", program " + program; }

}  // namespace messaging
