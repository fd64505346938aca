#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

// Looks up the users and groups that a configuration names, all of them within one span of time. Who answers (a
// directory in the network) may take minutes: what is still under way then is left to a thread of its own.
class AccountLookup {
 public:
  enum Kind { USER, GROUP };
  struct Answer {
    std::optional<unsigned> number;  // absent: there is no such name, or the error says why it is not known
    int error = 0;
  };
  using Ask = std::function<Answer(Kind kind, const std::string& name)>;

  // `ask` may be called by threads that outlive the object.
  explicit AccountLookup(std::chrono::milliseconds within, Ask ask = AskSystem);

  // The uid or gid of a name or of a number, which is not looked up. Returns an empty text, or why there is none.
  std::string Find(Kind kind, const std::string& name, unsigned& number);

  // Whether a name failed in a way that may pass: no answer, or an error of those who know.
  bool IsPassing() const { return m_isPassing; }

 private:
  static Answer AskSystem(Kind kind, const std::string& name);
  std::optional<Answer> AskInTime(Kind kind, const std::string& name);

  const std::chrono::milliseconds m_within;
  const std::chrono::steady_clock::time_point m_deadline;
  const Ask m_ask;
  bool m_isPassing = false;
};
