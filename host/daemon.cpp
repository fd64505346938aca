#include "host/daemon.h"

#include <chrono>
#include <filesystem>

#include "host/agent_watch.h"
#include "host/service_notify.h"
#include "platform/journal.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kQueuesDeadline = std::chrono::seconds(5);
constexpr timespec kQueuesPoll{0, 10'000'000};  // ns

timespec TimespecOf(AgentWatch::Clock::duration duration) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
  return {seconds.count(), std::chrono::nanoseconds(duration - seconds).count()};
}

void ReportErrors(const ConfigResult& result) {
  for (const std::string& error : result.errors) JournalError(error);
}

// The default file counts from the moment it exists; once read, it has to stay.
void ChooseFile(std::string& file) {
  std::error_code error;
  if (file.empty() && std::filesystem::exists(kDefaultConfig, error)) file = kDefaultConfig;
}

}  // namespace

std::optional<LoadedConfig> LoadConfig(std::string& file) {
  ChooseFile(file);
  if (file.empty()) {
    return LoadedConfig{DefaultSettings(), {}, "built-in settings"};
  }
  ConfigResult result = ReadConfig(file);
  ReportErrors(result);
  if (!result.settings) {
    return std::nullopt;
  }
  return LoadedConfig{std::move(*result.settings), std::move(result.text), "settings of " + file};
}

std::optional<LoadedConfig> LoadConfigAtStart(std::string& file, const LastGoodConfig& lastGood) {
  std::optional<LoadedConfig> config = LoadConfig(file);
  if (config || !lastGood.IsAfterCrash()) {
    return config;
  }
  const ConfigResult& kept = lastGood.Kept();
  if (!kept.settings) {
    ReportErrors(kept);
    return std::nullopt;
  }
  JournalError("natagentd: " + file +
               " is wrong, and the last run did not end by a stop: going on with the last good settings");
  return LoadedConfig{*kept.settings, kept.text, "last good settings, not those of " + file};
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
  int exitCode = start == Start::FAILED ? kExitFailed : kExitOk;
  if (start == Start::READY) {
    exitCode = Serve();
  }
  NotifyStopping();
  m_library.stopNatMain();
  m_library.Unload();
  if (exitCode == kExitOk) {
    m_lastGood.MarkStopped();
    JournalNotice("natagentd: stopped");
  }
  return exitCode;
}

Daemon::Start Daemon::WaitForQueues() {
  const auto deadline = Clock::now() + kQueuesDeadline;
  // The queues are there a moment before the agent's main loop can be reached.
  while (!QueuesOpen(m_dirs.runtime) || !AgentWatch::Runs(m_library)) {
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
  }
}

void Daemon::Reload() {
  std::optional<LoadedConfig> config = LoadConfig(m_configFile);
  if (!config) {
    return JournalError("natagentd: the settings stay as they are");
  }
  m_lastGood.Keep(config->text);
  const u16 changes = ChangesBetween(m_source.Current(), config->settings);
  if (changes == 0) {
    return JournalNotice("natagentd: read " + config->origin + ", nothing has changed");
  }
  m_source.Replace(std::move(config->settings), [&] { m_library.updateNatMain(changes); });
  JournalNotice("natagentd: changed to the " + config->origin);
}
