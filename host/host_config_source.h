#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "host/config_file.h"
#include "nat/host_config.h"

// The host's settings as the agent asks for them.
//
// The agent calls GetConfig anew for every field it reads, on its own thread and, inside UpdateNatMain, on the host's.
// Were new settings to become current at any moment, a load on the agent's thread could begin with the old ones and end
// with the new, and the agent would answer from a mixture that was never configured. So the record changes only when no
// load can be under way on the other thread: at the first GetConfig that comes on the host's thread from inside
// UpdateNatMain. The agent then holds the lock under which all its loads run. When UpdateNatMain returns without having
// asked, the agent is not running or has nothing to reload, and the record changes right then. What the agent has begun
// to load meanwhile may be the old settings or a mixture; telling it once more sets that right.
class HostConfigSource final : public ConfigSource {
 public:
  // The thread that makes the source is the host's thread.
  explicit HostConfigSource(HostSettings settings);
  virtual ~HostConfigSource() = default;
  HostConfigSource(const HostConfigSource&) = delete;
  HostConfigSource& operator=(const HostConfigSource&) = delete;

  // The agent's thread, and the host's inside Replace. A record given stays as it is and where it is until the load
  // that asked for it is over.
  HostConfig* GetConfig() override;

  // Makes the settings current as described above. `tell` calls UpdateNatMain; it is called once or twice. Host's
  // thread only.
  void Replace(HostSettings settings, const std::function<void()>& tell);

  // Host's thread only.
  const HostSettings& Current() const;

 private:
  struct Record {
    explicit Record(HostSettings given) : settings(std::move(given)) {}
    HostSettings settings;
    HostConfig config{&settings.media, &settings.nat};
  };
  void MakeNextCurrent();

  const std::thread::id m_hostThread = std::this_thread::get_id();

  mutable std::mutex m_mutex;
  // guarded by m_mutex
  std::unique_ptr<Record> m_current;
  std::unique_ptr<Record> m_next;  // null when nothing is waiting
  // Records that a load on the agent's thread may still read; freed at the next moment when none can be under way.
  std::vector<std::unique_ptr<Record>> m_retired;
};
