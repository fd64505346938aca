#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

// Looks up the users that a configuration names, all of them within one span of time. Who answers (a directory in the
// network) may take minutes: what is still under way then is left to a thread of its own.
class AccountLookup {
 public:
  struct Answer {
    std::optional<uid_t> uid;  // absent: there is no such user, or the error says why it is not known
    int error = 0;
  };
  using Ask = std::function<Answer(const std::string& name)>;

  // `ask` may be called by threads that outlive the object.
  explicit AccountLookup(std::chrono::milliseconds within, Ask ask = AskSystem);

  // A name or a number, which is not looked up. Returns an empty text, or why there is no such user.
  std::string User(const std::string& name, uid_t& uid);

  // Whether a name failed in a way that may pass: no answer, or an error of those who know.
  bool IsPassing() const { return m_isPassing; }

 private:
  static Answer AskSystem(const std::string& name);
  std::optional<Answer> AskInTime(const std::string& name);

  const std::chrono::milliseconds m_within;
  const std::chrono::steady_clock::time_point m_deadline;
  const Ask m_ask;
  bool m_isPassing = false;
};
