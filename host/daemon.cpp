#include "host/daemon.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "host/agent_watch.h"
#include "host/config_drop_ins.h"
#include "host/config_report.h"
#include "host/service_notify.h"
#include "platform/journal.h"
#include "platform/messaging/runtime_dir.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kQueuesDeadline = std::chrono::seconds(5);
constexpr timespec kQueuesPoll{0, 10'000'000};  // ns
constexpr std::size_t kMaxFault = 512;          // bytes

// How long a reload may wait for the names of users: with the half of the service manager's time that passes between
// two signs of life it stays within the whole.
std::chrono::milliseconds NamesWithin() {
  constexpr std::chrono::milliseconds kLongest(5000);
  const auto quarter = std::chrono::duration_cast<std::chrono::milliseconds>(WatchdogInterval() / 4);
  return quarter.count() == 0 ? kLongest : std::min(kLongest, quarter);
}

timespec TimespecOf(AgentWatch::Clock::duration duration) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
  return {seconds.count(), std::chrono::nanoseconds(duration - seconds).count()};
}

// The default file counts from the moment that it or a drop-in of it exists; once read, it has to stay. One that is
// there and cannot be read, or whose link leads nowhere, is an error.
void ChooseFile(std::string& file) {
  struct stat found {};
  if (file.empty() && (::lstat(kDefaultConfig, &found) == 0 || (errno != ENOENT && errno != ENOTDIR) ||
                       !FindDropIns(kDefaultConfig).files.empty())) {
    file = kDefaultConfig;
  }
}

}  // namespace

std::optional<LoadedConfig> LoadConfig(std::string& file, std::chrono::milliseconds namesWithin, int& exitCode) {
  ChooseFile(file);
  ConfigResult result = file.empty() ? ParseConfig("", file) : ReadConfigWithDropIns(file, namesWithin);
  JournalErrors(result.errors);
  if (!result.settings) {
    exitCode = result.isPassing ? kExitFailed : kExitUsage;
    return std::nullopt;
  }
  std::string origin = file.empty() ? "built-in settings" : "settings of " + file;
  if (result.files.size() > 1) {
    origin += " and " + std::to_string(result.files.size() - 1) + " in conf.d";
  }
  return LoadedConfig{std::move(*result.settings), std::move(result.text), std::move(origin), std::move(result.values),
                      std::move(result.files)};
}

std::optional<LoadedConfig> LoadConfigAtStart(std::string& file, const LastGoodConfig& lastGood, int& exitCode) {
  if (file.empty() && lastGood.IsAfterCrash() && !lastGood.Kept().text.empty()) {
    file = kDefaultConfig;  // the run before had one: should it be gone, its limits must not go silently
  }
  std::optional<LoadedConfig> config = LoadConfig(file, kNamesWithin, exitCode);
  if (config || !lastGood.IsAfterCrash()) {
    return config;
  }
  const ConfigResult& kept = lastGood.Kept();
  if (!kept.settings) {
    JournalErrors(kept.errors);
    return std::nullopt;
  }
  JournalError("natagentd: " + file +
               " is wrong, and the last run did not end by a stop: going on with the last good settings");
  return LoadedConfig{*kept.settings, kept.text, "last good settings, not those of " + file, {}, {}};
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

Daemon::Daemon(const sigset_t& signals, RuntimeDirs dirs, std::string configFile, LoadedConfig config,
               LastGoodConfig& lastGood)
    : m_signals(signals),
      m_dirs(std::move(dirs)),
      m_configFile(std::move(configFile)),
      m_startText(std::move(config.text)),
      m_startOrigin(std::move(config.origin)),
      m_lastGood(lastGood),
      m_source(std::move(config.settings)) {}

int Daemon::Run() {
  if (const std::string fault = Prepare(); !fault.empty()) {
    JournalError("natagentd: " + fault);
    return kExitFailed;
  }

  // The agent sees the source through its base.
  m_library.natMain(static_cast<ConfigSource*>(&m_source));
  const Start start = WaitForQueues();
  int exitCode = start == Start::FAILED ? kExitFailed : kExitOk;
  if (start == Start::READY) {
    exitCode = Serve();
  }
  NotifyStopping();
  m_status.reset();
  m_library.stopNatMain();
  m_library.Unload();
  if (exitCode == kExitOk) {
    m_lastGood.MarkStopped();
    JournalNotice("natagentd: stopped");
  }
  return exitCode;
}

// Everything that comes before the agent's start. Returns an empty text, or what is wrong.
std::string Daemon::Prepare() {
  if (std::string fault = PrepareDirs(m_dirs); !fault.empty()) {
    return fault;
  }
  // Before the library is loaded, and handed on to it: nobody can come in between.
  m_lease.emplace(m_dirs.runtime);
  if (!m_lease->IsHeld()) {
    return m_lease->Fault();
  }
  if (std::string fault = m_library.Load(); !fault.empty()) {
    return fault;
  }
  if (const int error = m_library.useRuntimeDir(m_dirs.runtime.c_str(), m_lease->Lock()); error != 0) {
    return "cannot hand over the runtime directory " + m_dirs.runtime + ": " + std::strerror(error);
  }
  if (const int error = m_library.useLogDir(m_dirs.log.c_str()); error != 0) {
    return "cannot hand over the log directory " + m_dirs.log + ": " + std::strerror(error);
  }
  m_status.emplace(*m_lease, m_library);
  ApplyAccess(m_startOrigin);
  return {};
}

Daemon::Start Daemon::WaitForQueues() {
  const auto deadline = Clock::now() + kQueuesDeadline;
  for (;;) {
    char why[kMaxFault];
    const int state = m_library.checkQueues(why, sizeof why);
    // The queues are there a moment before the agent's main loop can be reached.
    if (state == NAT_HOST_QUEUES_OPEN && AgentWatch::Runs(m_library)) {
      return Start::READY;
    }
    if (state == NAT_HOST_QUEUES_LOST) {
      JournalError(std::string("natagentd: ") + why);
      return Start::FAILED;
    }
    const int number = ::sigtimedwait(&m_signals, nullptr, &kQueuesPoll);
    if (number == SIGTERM || number == SIGINT) {
      return Start::STOPPED;
    }
    if (number == SIGHUP) {
      m_reloadAsked = true;
    }
    if (Clock::now() >= deadline) {
      JournalError("natagentd: the agent has not opened its queues in " + m_dirs.runtime + " within 5 s");
      return Start::FAILED;
    }
  }
}

int Daemon::Serve() {
  JournalNotice("natagentd: ready, queues in " + m_dirs.runtime + ", log in " + m_dirs.log + ", " + m_startOrigin);
  m_lastGood.Keep(m_startText);
  m_lastGood.MarkRunning();
  if (m_reloadAsked) {
    Reload();
  }
  NotifyReady();
  for (AgentWatch watch(m_library);;) {
    const timespec wait = TimespecOf(watch.UntilNext());
    const int number = ::sigtimedwait(&m_signals, nullptr, &wait);
    if (number == SIGTERM || number == SIGINT) {
      return kExitOk;
    }
    if (number == SIGHUP) {
      NotifyReloading();
      Reload();
      NotifyReady();
    }
    if (!watch.Look()) {
      JournalError("natagentd: the agent has ended by itself");
      return kExitFailed;
    }
    if (!AreQueuesOpen()) {
      return kExitFailed;
    }
  }
}

bool Daemon::AreQueuesOpen() {
  char why[kMaxFault];
  const int state = m_library.checkQueues(why, sizeof why);
  if (state == NAT_HOST_QUEUES_OPEN) {
    return true;
  }
  const std::string reason = state == NAT_HOST_QUEUES_LOST ? why : "the agent has closed its queues";
  JournalError("natagentd: " + reason + "; call agents cannot reach this agent any more, so it ends");
  return false;
}

void Daemon::Reload() {
  int exitCode = 0;
  std::optional<LoadedConfig> config = LoadConfig(m_configFile, NamesWithin(), exitCode);
  if (!config) {
    return JournalError("natagentd: the settings stay as they are");
  }
  m_lastGood.Keep(config->text);
  const HostSettings& current = m_source.Current();
  const u16 changes = ChangesBetween(current, config->settings);
  if (changes == 0 && current.access == config->settings.access &&
      current.statusGroup == config->settings.statusGroup) {
    m_status->SetConfig(DescribeConfig(current, config->origin));
    return JournalNotice("natagentd: read " + config->origin + ", nothing has changed");
  }
  m_source.Replace(std::move(config->settings), [&] { m_library.updateNatMain(changes); });
  ApplyAccess(config->origin);
  JournalNotice("natagentd: changed to the " + config->origin);
}

void Daemon::ApplyAccess(const std::string& origin) {
  LimitQueues();
  const HostSettings& settings = m_source.Current();
  m_status->SetGroup(settings.statusGroup);
  m_status->SetConfig(DescribeConfig(settings, origin));
}

void Daemon::LimitQueues() {
  const QueueAccess& access = m_source.Current().access;
  for (const messaging::QueueInfo& queue : messaging::kQueues) {
    const auto users = access.find(queue.number);
    const int error = users == access.end()
                          ? m_library.limitQueue(queue.number, nullptr, NAT_HOST_EVERYONE)
                          : m_library.limitQueue(queue.number, users->second.data(), users->second.size());
    if (error != 0) {
      JournalError("natagentd: cannot limit queue " + std::to_string(queue.number) + ": " + std::strerror(error));
    }
  }
}
