#pragma once

#include <string>
#include <string_view>

#include "host/config_file.h"
#include "platform/unique_fd.h"

// Keeps the text of the last configuration that was right in the state directory, for a start after a crash at which
// the file is wrong. A directory that is missing, cannot be used or serves another daemon is reported once, and then
// nothing is kept.
class LastGoodConfig {
 public:
  // An empty name: $NATAGENT_STATE_DIR, else /var/lib/natagent.
  explicit LastGoodConfig(std::string stateDir);

  // Whether the run before this one crashed, was killed or lost its power: it began and was not marked as stopped.
  bool IsAfterCrash() const { return m_isAfterCrash; }
  // What was kept at the start, or why there is nothing to use.
  const ConfigResult& Kept() const { return m_kept; }

  // Replaces what is kept, on disk when this returns; a failure is reported and leaves the one before.
  void Keep(std::string_view text);

  void MarkRunning() { Mark("running\n"); }
  void MarkStopped() { Mark(""); }

 private:
  std::string Open();
  std::string File() const;
  std::string Write(std::string_view text);
  void Mark(std::string_view state);

  std::string m_dirName;
  UniqueFd m_dir;
  UniqueFd m_state;  // the file that says whether the daemon runs; locked, so that only one daemon uses the directory
  bool m_isAfterCrash = false;
  ConfigResult m_kept;    // its settings and errors are those of the start
  bool m_isKept = false;  // m_kept.text is on disk
};
