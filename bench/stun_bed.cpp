#include "bench/stun_bed.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace {

void Shell(const std::string& command) {
  if (std::system(command.c_str()) != 0) {  // NOLINT(cert-env33-c)
    throw std::runtime_error("failed: " + command);
  }
}

std::string Prefix() { return "stunbed-" + std::to_string(::getpid()) + "-"; }

}  // namespace

StunBed::StunBed(std::chrono::milliseconds delay)
    : m_home(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)),
      m_delay(delay),
      m_dev(Prefix() + "dev"),
      m_rtr(Prefix() + "rtr"),
      m_inet(Prefix() + "inet"),
      m_between(Prefix() + "between") {
  char directory[] = "/tmp/stunbed-XXXXXX";
  if (::mkdtemp(directory) == nullptr) {
    throw std::runtime_error("no temporary directory");
  }
  m_directory = directory;
  try {
    BuildNetwork();
    RunServer();
    const int device = ::open(("/run/netns/" + m_dev).c_str(), O_RDONLY | O_CLOEXEC);
    const bool hasMoved = device >= 0 && ::setns(device, CLONE_NEWNET) == 0;
    ::close(device);
    if (!hasMoved) {
      throw std::runtime_error("cannot enter " + m_dev);
    }
  } catch (...) {
    TearDown();
    throw;
  }
}

StunBed::~StunBed() { TearDown(); }

void StunBed::BuildNetwork() {
  for (const std::string& name : {m_dev, m_rtr, m_inet, m_between}) {
    Shell("ip netns add " + name + " && ip -n " + name + " link set lo up");
  }
  const auto join = [this](const std::string& name, const char* link, const char* address, const char* routerLink,
                           const char* routerAddress) {
    Shell("ip -n " + name + " link add " + link + " type veth peer name " + routerLink + " netns " + m_rtr);
    Shell("ip -n " + name + " addr add " + address + " dev " + link + " && ip -n " + name + " link set " + link +
          " up");
    Shell("ip -n " + m_rtr + " addr add " + routerAddress + " dev " + routerLink + " && ip -n " + m_rtr + " link set " +
          routerLink + " up");
  };
  join(m_dev, "d0", "10.77.0.2/24", "r0", "10.77.0.1/24");
  join(m_inet, "i0", "203.0.113.1/24", "r1", "203.0.113.2/24");
  if (m_delay.count() != 0) {
    Interpose();
  }
  Shell("ip -n " + m_dev + " route add default via 10.77.0.1");
  Shell("ip netns exec " + m_rtr + " sysctl -qw net.ipv4.ip_forward=1");
  Shell(
      "ip netns exec " + m_rtr +
      " nft 'table ip nat { chain post { type nat hook postrouting priority srcnat; oifname \"r1\" masquerade; }; }'");
}

// The wire between router and server is cut, and its ends lead into a relay.
void StunBed::Interpose() {
  const std::string inBetween = "ip -n " + m_between + " link ";
  Shell("ip -n " + m_rtr + " link del r1");
  Shell(inBetween + "add left type veth peer name r1 netns " + m_rtr + " && " + inBetween + "set left up");
  Shell(inBetween + "add right type veth peer name i0 netns " + m_inet + " && " + inBetween + "set right up");
  Shell("ip -n " + m_rtr + " addr add 203.0.113.2/24 dev r1 && ip -n " + m_rtr + " link set r1 up");
  Shell("ip -n " + m_inet + " addr add 203.0.113.1/24 dev i0 && ip -n " + m_inet + " link set i0 up");
  m_relay.emplace(m_between, "left", "right", m_delay);
}

// The server has its socket when this returns.
void StunBed::RunServer() {
  std::vector<std::string> words{"ip", "netns", "exec", m_inet, "turnserver"};
  for (const char* word : {"-n", "-S", "-z", "--no-tls", "--no-dtls", "--no-tcp", "--no-cli", "-m", "0", "-L", kServer,
                           "-p", kPort, "-l", "stdout"}) {
    words.emplace_back(word);
  }
  words.insert(words.end(), {"--pidfile", m_directory + "/pid", "--userdb", m_directory + "/db"});
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  posix_spawn_file_actions_t files;
  ::posix_spawn_file_actions_init(&files);
  ::posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  ::posix_spawn_file_actions_adddup2(&files, STDOUT_FILENO, STDERR_FILENO);
  const int error = ::posix_spawnp(&m_server, "ip", &files, nullptr, argv.data(), environ);
  ::posix_spawn_file_actions_destroy(&files);
  if (error != 0) {
    m_server = -1;
    throw std::runtime_error("cannot run turnserver");
  }
  Shell("timeout 10 sh -c 'until ip netns exec " + m_inet + " ss -Huln | grep -q :" + kPort + "; do sleep 0.05; done'");
}

void StunBed::TearDown() {
  if (m_server > 0) {
    ::kill(m_server, SIGKILL);
    ::waitpid(m_server, nullptr, 0);
  }
  m_relay.reset();
  if (::setns(m_home, CLONE_NEWNET) != 0) {
    std::abort();
  }
  ::close(m_home);
  for (const std::string& name : {m_dev, m_rtr, m_inet, m_between}) {
    // A namespace that was never made has none to go.
    [[maybe_unused]] const int gone = std::system(("ip netns del " + name + " 2>/dev/null").c_str());
  }
  std::error_code ignored;
  std::filesystem::remove_all(m_directory, ignored);
}

void StunBed::Spoil(int lossPercent, int requestsPerSecond) {
  std::string rules = "numgen random mod 100 < " + std::to_string(lossPercent) + " drop; ";
  if (requestsPerSecond != 0) {
    rules += std::string("udp dport ") + kPort + " limit rate over " + std::to_string(requestsPerSecond) +
             "/second burst 5 packets drop; ";
  }
  Shell("ip netns exec " + m_rtr +
        " nft 'table ip spoil {}; delete table ip spoil; table ip spoil { chain both { type " +
        "filter hook forward priority 0; " + rules + "}; }'");
}

PacketCount StunBed::Packets() const {
  // After the name: eight columns of what was received, packets the second of them, and as many of what was sent.
  std::ifstream links("/proc/thread-self/net/dev");
  std::string word;
  while (links >> word && word != "d0:") {
  }
  PacketCount count;
  unsigned long skipped = 0;
  links >> skipped >> count.in;
  for (int i = 0; i < 7; ++i) {
    links >> skipped;
  }
  links >> count.out;
  return count;
}
