#include "bench/stun_bed.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
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

StunBed::StunBed()
    : m_home(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)),
      m_dev(Prefix() + "dev"),
      m_rtr(Prefix() + "rtr"),
      m_inet(Prefix() + "inet") {
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
  for (const std::string& name : {m_dev, m_rtr, m_inet}) {
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
  Shell("ip -n " + m_dev + " route add default via 10.77.0.1");
  Shell("ip netns exec " + m_rtr + " sysctl -qw net.ipv4.ip_forward=1");
  Shell(
      "ip netns exec " + m_rtr +
      " nft 'table ip nat { chain post { type nat hook postrouting priority srcnat; oifname \"r1\" masquerade; }; }'");
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
  if (::setns(m_home, CLONE_NEWNET) != 0) {
    std::abort();
  }
  ::close(m_home);
  for (const std::string& name : {m_dev, m_rtr, m_inet}) {
    // A namespace that was never made has none to go.
    [[maybe_unused]] const int gone = std::system(("ip netns del " + name + " 2>/dev/null").c_str());
  }
  std::error_code ignored;
  std::filesystem::remove_all(m_directory, ignored);
}

void StunBed::Lose(int percent) {
  Shell("ip netns exec " + m_rtr +
        " nft 'table ip loss { chain both { type filter hook forward priority 0; numgen random mod 100 < " +
        std::to_string(percent) + " drop; }; }'");
}
