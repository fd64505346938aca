#include "bench/signalling_bed.h"

#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "platform/sockets/inet.h"

namespace {

constexpr std::size_t kAnswerBytes = sizeof(messaging::FrameHeader) + sizeof(messaging::CsAnswerRecord);

void Shell(const std::string& command) {
  if (std::system(command.c_str()) != 0) {  // NOLINT(cert-env33-c)
    throw std::runtime_error("failed: " + command);
  }
}

std::string MakeDirectory(const std::string& parent) {
  std::string name = parent + "/natagent-bench-XXXXXX";
  if (::mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("no directory in " + parent);
  }
  return name;
}

void End(pid_t process) {
  if (process > 0) {
    ::kill(process, SIGTERM);
    ::waitpid(process, nullptr, 0);
  }
}

std::string Configuration(int rules, int ports) {
  std::string text = "[media]\nrtp_port_start = 10000\nrtp_port_end = " + std::to_string(10000 + ports - 1) +
                     "\n[nat]\ngw_interface = \"wire0\"\nsip_udp_port = 5060\nsip_udp_public_ip = \"203.0.113.7\"\n"
                     "sip_udp_public_port = 15060\ngw_public_ip = \"203.0.113.7\"\ngw_public_port_start = 20000\n"
                     "gw_public_port_end = " +
                     std::to_string(20000 + ports - 1) + "\nexclusions = [\n";
  // Of several sizes, and none that matches.
  constexpr const char* kMasks[] = {"255.255.255.0", "255.255.255.128", "255.255.255.240", "255.255.255.255"};
  for (int i = 0; i < rules; ++i) {
    text += "{ ip = \"10." + std::to_string(80 + i / 256) + "." + std::to_string(i % 256) + ".0\", mask = \"" +
            kMasks[i % 4] + "\" },\n";
  }
  return text + "]\n";
}

[[noreturn]] void Serve(int socket) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::array<char, 65536> buffer;
  for (;;) {
    const ssize_t got = ::recv(socket, buffer.data(), buffer.size(), 0);
    if (got <= 0 ||
        ::send(socket, buffer.data(), std::min(kAnswerBytes, static_cast<std::size_t>(got)), MSG_NOSIGNAL) < 0) {
      ::_exit(0);
    }
  }
}

UniqueFd TryConnect(const std::string& path) {
  UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  if (::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return {};
  }
  return socket;
}

std::string Encode(const messaging::Frame& frame) {
  std::string packet;
  if (!messaging::EncodeFrame(frame, packet)) {
    throw std::runtime_error("a request cannot be encoded");
  }
  return packet;
}

}  // namespace

void EnterOwnNetwork() {
  if (::unshare(CLONE_NEWNET) != 0) {
    throw std::runtime_error("no network namespace of its own: this bench needs root");
  }
  Shell(
      "ip link set lo up && ip link add wire0 type veth peer name wire1 && ip addr add 10.77.0.2/24 dev wire0 && "
      "ip link set wire0 up && ip link set wire1 up && ip route add default via 10.77.0.1");
}

void StayOnCore(int core) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(core, &cores);
  if (::sched_setaffinity(0, sizeof(cores), &cores) != 0) {
    throw std::runtime_error("cannot stay on core " + std::to_string(core));
  }
}

void Line::Send(const std::string& packet) const {
  if (::send(m_socket.Get(), packet.data(), packet.size(), MSG_NOSIGNAL) < 0) {
    throw std::runtime_error("cannot send");
  }
}

std::size_t Line::Receive() const {
  std::array<char, 65536> buffer;
  const ssize_t got = ::recv(m_socket.Get(), buffer.data(), buffer.size(), 0);
  if (got <= 0) {
    throw std::runtime_error("hung up on");
  }
  return static_cast<std::size_t>(got);
}

RawEcho::RawEcho() {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw std::runtime_error("no socket pair");
  }
  m_line.emplace(UniqueFd(ends[0]));
  const UniqueFd other(ends[1]);
  m_process = ::fork();
  if (m_process == 0) {
    Serve(other.Get());
  }
}

RawEcho::~RawEcho() { End(m_process); }

Daemon::Daemon(const std::string& logParent, int rules, int ports)
    : m_directory(MakeDirectory("/dev/shm")), m_logs(MakeDirectory(logParent)) {
  std::ofstream(m_directory + "/natagentd.toml") << Configuration(rules, ports);
  const char* const given = std::getenv("NATAGENTD");
  const std::string program = given != nullptr ? given : NATAGENT_DAEMON;
  m_process = ::fork();
  if (m_process == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::execl(program.c_str(), "natagentd", "--config", (m_directory + "/natagentd.toml").c_str(), "--runtime-dir",
            m_directory.c_str(), "--state-dir", m_directory.c_str(), "--log-dir", m_logs.c_str(), nullptr);
    ::_exit(127);
  }
}

Daemon::~Daemon() {
  End(m_process);
  std::filesystem::remove_all(m_directory);
  std::filesystem::remove_all(m_logs);
}

Line Daemon::Connect(int queue) const {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (;;) {
    UniqueFd socket = TryConnect(m_directory + "/queue-" + std::to_string(queue));
    if (socket) {
      Line line(std::move(socket));
      line.Receive();
      return line;
    }
    if (std::chrono::steady_clock::now() > end) {
      throw std::runtime_error("natagentd does not take parties");
    }
    ::usleep(100);
  }
}

double Daemon::Memory() const {
  std::ifstream status("/proc/" + std::to_string(m_process) + "/status");
  for (std::string word; status >> word;) {
    double kilobytes = 0;
    if (word == "VmRSS:" && status >> kilobytes) {
      return kilobytes / 1024;
    }
  }
  throw std::runtime_error("natagentd is gone");
}

double Daemon::Busy() const {
  double nanoseconds = 0;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/" + std::to_string(m_process) + "/task")) {
    double one = 0;
    std::ifstream(thread.path() / "schedstat") >> one;
    nanoseconds += one;
  }
  return nanoseconds / 1000;
}

std::string CsRequest(u64 id, u16 port) {
  messaging::Frame frame;
  frame.kind = messaging::FrameKind::CS_REQUEST;
  frame.queryId = id;
  frame.text = kFar;
  frame.items.push_back({sockets::inet_addr("10.77.0.2"), port, 0});
  return Encode(frame);
}

std::string ListRequest(messaging::FrameKind kind, u64 id, int items, u32 value) {
  messaging::Frame frame;
  frame.kind = kind;
  frame.queryId = id;
  frame.value = value;
  frame.text = kFar;
  for (int i = 0; i < items; ++i) {
    frame.items.push_back({sockets::inet_addr("10.77.0.2"), static_cast<u16>(10000 + i), 0});
  }
  return Encode(frame);
}

std::string CloseRequest(u64 id) {
  messaging::Frame frame;
  frame.kind = messaging::FrameKind::CLOSE_REQUEST;
  frame.queryId = id;
  return Encode(frame);
}
