#pragma once

#include <signal.h>

#include <optional>
#include <string>

#include "host/agent_library.h"
#include "host/command_line.h"
#include "host/config_file.h"
#include "host/host_config_source.h"
#include "host/last_good_config.h"
#include "host/status_server.h"
#include "platform/messaging/runtime_dir_lease.h"

struct LoadedConfig {
  HostSettings settings;
  std::string text;    // that gives them; empty for the built-in settings, which an empty file means too
  std::string origin;  // for people
  std::vector<ConfigValue> values;
  std::vector<std::string> files;  // those read; none for the built-in settings
};

// The configuration of the file the command line names, or of the default one, with its drop-ins. Without a value the
// errors have been reported, and `exitCode` says whether they may pass. `file` becomes the file that was read, or stays
// empty for the built-in settings.
std::optional<LoadedConfig> LoadConfig(std::string& file, std::chrono::milliseconds namesWithin, int& exitCode);

// The same at a start; when the file is wrong and the run before crashed, the last configuration that was right.
std::optional<LoadedConfig> LoadConfigAtStart(std::string& file, const LastGoodConfig& lastGood, int& exitCode);

// Blocks the signals that drive the daemon in this thread and in those it starts, and returns them. Comes before
// everything else, so that one sent right after the start waits for the daemon instead of killing it.
sigset_t TakeSignals();

// One run of the agent: from loading the library to unloading it. Everything happens on the thread that makes it.
class Daemon {
 public:
  // `signals`: those of TakeSignals.
  Daemon(const sigset_t& signals, RuntimeDirs dirs, std::string configFile, LoadedConfig config,
         LastGoodConfig& lastGood);

  // Returns the exit code.
  int Run();

 private:
  enum class Start { READY, STOPPED, FAILED };

  std::string Prepare();
  Start WaitForQueues();
  // Until a signal ends it, the agent is gone or parties cannot reach it; returns the exit code.
  int Serve();
  bool AreQueuesOpen();
  void Reload();
  // Whoever may connect, and what readers of the status are told.
  void ApplyAccess(const std::string& origin);
  void LimitQueues();

  const sigset_t m_signals;
  const RuntimeDirs m_dirs;
  std::string m_configFile;
  const std::string m_startText;  // of the configuration at start, and its origin
  const std::string m_startOrigin;
  LastGoodConfig& m_lastGood;
  HostConfigSource m_source;
  std::optional<messaging::RuntimeDirLease> m_lease;  // the library, which shares it, goes first
  AgentLibrary m_library;
  std::optional<StatusServer> m_status;  // while the library is loaded
  bool m_reloadAsked = false;            // by a SIGHUP that came while the agent was starting
};
