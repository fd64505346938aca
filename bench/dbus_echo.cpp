// A call over D-Bus, by way of a message bus of its own in a temporary directory, beside a signalling request to the
// agent, on one core. The call carries what the request and its answer carry, and the server only returns it.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "bench/interleaved.h"
#include "bench/signalling_bed.h"

namespace {

constexpr char kName[] = "bench.Echo";
constexpr char kPath[] = "/echo";
// Query id, address, port, port type, value; in the request also the destination.
constexpr char kAnswer[] = "tuquu";
constexpr char kRequest[] = "tuquus";

using Bus = std::unique_ptr<sd_bus, decltype(&sd_bus_flush_close_unref)>;

void Check(int result, const char* what) {
  if (result < 0) {
    throw std::runtime_error(std::string("D-Bus: ") + what);
  }
}

// Until the bus is there.
Bus Open(const std::string& address) {
  for (int tries = 0; tries < 2'000; ++tries) {
    sd_bus* made = nullptr;
    Check(sd_bus_new(&made), "no memory");
    Bus bus(made, sd_bus_flush_close_unref);
    sd_bus_set_address(made, address.c_str());
    sd_bus_set_bus_client(made, 1);
    const char* name = nullptr;
    if (sd_bus_start(made) >= 0 && sd_bus_get_unique_name(made, &name) >= 0) {
      return bus;
    }
    ::usleep(1000);
  }
  throw std::runtime_error("D-Bus: no bus");
}

int Answer(sd_bus_message* request, void*, sd_bus_error*) {
  std::uint64_t id = 0;
  std::uint32_t ip = 0;
  std::uint16_t port = 0;
  std::uint32_t type = 0;
  std::uint32_t value = 0;
  const char* destination = nullptr;
  const int result = sd_bus_message_read(request, kRequest, &id, &ip, &port, &type, &value, &destination);
  return result < 0 ? result : sd_bus_reply_method_return(request, kAnswer, id, ip, port, type, value);
}

const sd_bus_vtable kMethods[] = {SD_BUS_VTABLE_START(0),
                                  SD_BUS_METHOD("Echo", kRequest, kAnswer, Answer, SD_BUS_VTABLE_UNPRIVILEGED),
                                  SD_BUS_VTABLE_END};

[[noreturn]] void Serve(const std::string& address) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const Bus bus = Open(address);
  if (sd_bus_add_object_vtable(bus.get(), nullptr, kPath, kName, kMethods, nullptr) < 0 ||
      sd_bus_request_name(bus.get(), kName, 0) < 0) {
    ::_exit(1);
  }
  for (;;) {
    const int result = sd_bus_process(bus.get(), nullptr);
    if (result < 0 || (result == 0 && sd_bus_wait(bus.get(), UINT64_MAX) < 0)) {
      ::_exit(1);
    }
  }
}

// A bus, a server on it and a client of both.
class DbusEcho {
 public:
  DbusEcho() : m_directory("/dev/shm/natagent-bench-bus-" + std::to_string(::getpid())) {
    std::filesystem::create_directory(m_directory);
    const std::string address = "unix:path=" + m_directory + "/bus";
    const std::string config = m_directory + "/bus.conf";
    std::ofstream(config) << "<busconfig><type>session</type><listen>" << address
                          << "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow send_destination=\"*\"/>"
                             "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy></busconfig>";
    m_bus = ::fork();
    if (m_bus == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::execlp("dbus-daemon", "dbus-daemon", "--nofork", ("--config-file=" + config).c_str(), nullptr);
      ::_exit(127);
    }
    m_server = ::fork();
    if (m_server == 0) {
      Serve(address);
    }
    m_client = Open(address);
    for (int tries = 0; !TryCall() && tries < 2'000; ++tries) {
      ::usleep(1000);  // the server has no name yet
    }
  }
  ~DbusEcho() {
    m_client.reset();
    for (const pid_t process : {m_server, m_bus}) {
      ::kill(process, SIGTERM);
      ::waitpid(process, nullptr, 0);
    }
    std::filesystem::remove_all(m_directory);
  }
  DbusEcho(const DbusEcho&) = delete;
  DbusEcho& operator=(const DbusEcho&) = delete;

  void Call() {
    if (!TryCall()) {
      throw std::runtime_error("D-Bus: a call failed");
    }
  }

 private:
  bool TryCall() {
    sd_bus_message* reply = nullptr;
    const int result =
        sd_bus_call_method(m_client.get(), kName, kPath, kName, "Echo", nullptr, &reply, kRequest, std::uint64_t{7},
                           std::uint32_t{0x02004D0A}, 5060, std::uint32_t{0}, std::uint32_t{0}, kFar);
    sd_bus_message_unref(reply);
    return result >= 0;
  }

  const std::string m_directory;
  pid_t m_bus = -1;
  pid_t m_server = -1;
  Bus m_client{nullptr, sd_bus_flush_close_unref};
};

Measurement Compare() {
  DbusEcho bus;
  const RawEcho echo;
  const RawEcho again;
  const Daemon daemon("/dev/shm");
  const Line sip = daemon.Connect(112);
  const std::string request = CsRequest(7);
  const Interleaved run({[&] { echo.Peer().Call(request); }, [&] { again.Peer().Call(request); },
                         [&] { sip.Call(request); }, [&] { bus.Call(); }},
                        40);
  Measurement measured;
  measured.control = run.Mean(1) / run.Mean(0);
  char text[64];
  std::snprintf(text, sizeof(text), "D-Bus %.2f us, ours %.2f us", run.Mean(3), run.Mean(2));
  measured.figures = {{"D-Bus echo / round-trip", "x", run.Mean(3) / run.Mean(2), Figure::AT_LEAST, 4, text}};
  return measured;
}

}  // namespace

int main() {
  try {
    EnterOwnNetwork();
    StayOnCore(1);
    Figures figures;
    figures.Add(Compare);
    return figures.Status();
  } catch (const std::exception& fault) {
    std::fprintf(stderr, "dbus_echo: %s\n", fault.what());
    return 2;
  }
}
