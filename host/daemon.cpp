#include "host/daemon.h"

#include <chrono>
#include <filesystem>

#include "host/service_notify.h"
#include "platform/journal.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kQueuesDeadline = std::chrono::seconds(5);
constexpr timespec kQueuesPoll{0, 10'000'000};  // ns

// The default file counts from the moment it exists; once read, it has to stay.
void ChooseFile(std::string& file) {
  std::error_code error;
  if (file.empty() && std::filesystem::exists(kDefaultConfig, error)) file = kDefaultConfig;
}

std::string Describe(const std::string& configFile) {
  return configFile.empty() ? "built-in settings" : "settings of " + configFile;
}

}  // namespace

std::optional<HostSettings> LoadSettings(std::string& file) {
  ChooseFile(file);
  if (file.empty()) return DefaultSettings();
  ConfigResult result = ReadConfig(file);
  JournalErrors(result.errors);
  return std::move(result.settings);
}

sigset_t TakeSignals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int number : {SIGHUP, SIGTERM, SIGINT}) ::sigaddset(&signals, number);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // Standard error may be a pipe whose reader goes away; that must not end the agent.
  ::signal(SIGPIPE, SIG_IGN);
  return signals;
}

Daemon::Daemon(const sigset_t& signals, RuntimeDirs dirs, std::string configFile, HostSettings settings)
    : m_signals(signals), m_dirs(std::move(dirs)), m_configFile(std::move(configFile)), m_source(std::move(settings)) {}

int Daemon::Run() {
  std::string fault = PrepareDirs(m_dirs);
  if (fault.empty()) fault = ClaimRuntimeDir(m_dirs.runtime);
  if (fault.empty()) {
    ExportDirs(m_dirs);
    fault = m_library.Load();
  }
  if (!fault.empty()) {
    JournalError("natagentd: " + fault);
    return kExitFailed;
  }

  // The agent sees the source through its base.
  m_library.natMain(static_cast<ConfigSource*>(&m_source));
  const Start start = WaitForQueues();
  if (start == Start::READY) Serve();
  NotifyStopping();
  m_library.stopNatMain();
  m_library.Unload();
  if (start == Start::FAILED) return kExitFailed;
  JournalNotice("natagentd: stopped");
  return kExitOk;
}

Daemon::Start Daemon::WaitForQueues() {
  const auto deadline = Clock::now() + kQueuesDeadline;
  while (!QueuesOpen(m_dirs.runtime)) {
    const int number = ::sigtimedwait(&m_signals, nullptr, &kQueuesPoll);
    if (number == SIGTERM || number == SIGINT) return Start::STOPPED;
    if (number == SIGHUP) m_reloadAsked = true;
    // Two daemons may both have found the directory free; the other one's agent was first.
    if (const std::string fault = TakenByAnother(m_dirs.runtime); !fault.empty()) {
      JournalError("natagentd: " + fault);
      return Start::FAILED;
    }
    if (Clock::now() >= deadline) {
      JournalError("natagentd: the agent has not opened its queues in " + m_dirs.runtime + " within 5 s");
      return Start::FAILED;
    }
  }
  return Start::READY;
}

void Daemon::Serve() {
  JournalNotice("natagentd: ready, queues in " + m_dirs.runtime + ", log in " + m_dirs.log + ", " +
                Describe(m_configFile));
  if (m_reloadAsked) Reload();
  NotifyReady();
  for (;;) {
    const int number = ::sigwaitinfo(&m_signals, nullptr);
    if (number == SIGTERM || number == SIGINT) return;
    if (number != SIGHUP) continue;
    NotifyReloading();
    Reload();
    NotifyReady();
  }
}

void Daemon::Reload() {
  std::optional<HostSettings> settings = LoadSettings(m_configFile);
  if (!settings) return JournalError("natagentd: the settings stay as they are");
  const u16 changes = ChangesBetween(m_source.Current(), *settings);
  if (changes == 0) return JournalNotice("natagentd: read " + Describe(m_configFile) + ", nothing has changed");
  m_source.Replace(std::move(*settings), [&] { m_library.updateNatMain(changes); });
  JournalNotice("natagentd: changed to the " + Describe(m_configFile));
}
