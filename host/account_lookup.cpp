#include "host/account_lookup.h"

#include <grp.h>
#include <pwd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t kMaxEntry = 1 << 16;  // bytes of a user's or group's entry; far above any
constexpr int kMostHanging = 8;             // threads; each is one reading of a configuration that was given up

std::atomic<int> s_asking = 0;

// What the asking thread and the one that waits share; the last of them frees it.
struct Question {
  std::mutex mutex;
  std::condition_variable answered;
  std::optional<AccountLookup::Answer> answer;
};

// The number that a text consists of; the last one stands for nobody at all.
std::optional<unsigned> AsNumber(const std::string& text) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number == ~0U) {
    return std::nullopt;
  }
  return number;
}

// By getpwnam_r or getgrnam_r.
template <class Entry>
AccountLookup::Answer AskFor(const std::string& name, int (*find)(const char*, Entry*, char*, std::size_t, Entry**),
                             unsigned Entry::*number) {
  std::vector<char> buffer(1024);
  Entry entry{};
  Entry* found = nullptr;
  int error = 0;
  while ((error = find(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
         buffer.size() < kMaxEntry) {
    buffer.resize(buffer.size() * 2);
  }
  return found == nullptr ? AccountLookup::Answer{std::nullopt, error} : AccountLookup::Answer{found->*number, 0};
}

}  // namespace

AccountLookup::AccountLookup(std::chrono::milliseconds within, Ask ask)
    : m_within(within), m_deadline(std::chrono::steady_clock::now() + within), m_ask(std::move(ask)) {}

AccountLookup::Answer AccountLookup::AskSystem(Kind kind, const std::string& name) {
  return kind == USER ? AskFor(name, ::getpwnam_r, &passwd::pw_uid) : AskFor(name, ::getgrnam_r, &group::gr_gid);
}

std::optional<AccountLookup::Answer> AccountLookup::AskInTime(Kind kind, const std::string& name) {
  if (std::chrono::steady_clock::now() >= m_deadline || s_asking >= kMostHanging) {
    return std::nullopt;
  }
  const auto question = std::make_shared<Question>();
  ++s_asking;
  try {
    std::thread([question, kind, name, ask = m_ask] {
      const Answer answer = ask(kind, name);
      --s_asking;
      const std::lock_guard lock(question->mutex);
      question->answer = answer;
      question->answered.notify_one();
    }).detach();
  } catch (const std::system_error& error) {
    --s_asking;
    return Answer{std::nullopt, error.code().value()};
  }
  std::unique_lock lock(question->mutex);
  question->answered.wait_until(lock, m_deadline, [&] { return question->answer.has_value(); });
  return question->answer;
}

std::string AccountLookup::Find(Kind kind, const std::string& name, unsigned& number) {
  const std::string what = kind == USER ? "user" : "group";
  if (const std::optional<unsigned> given = AsNumber(name)) {
    number = *given;
    return {};
  }
  if (name.find('\0') != std::string::npos) {
    return "a " + what + "'s name has no NUL inside";
  }
  const std::optional<Answer> answer = AskInTime(kind, name);
  if (answer && answer->number) {
    number = *answer->number;
    return {};
  }
  if (answer && answer->error == 0) {
    return "\"" + name + "\" is not a " + what + " of this system";
  }
  m_isPassing = true;
  const std::string seconds = std::to_string(std::chrono::ceil<std::chrono::seconds>(m_within).count());
  return "\"" + name + "\" cannot be looked up: " +
         (answer ? std::strerror(answer->error) : "no answer within " + seconds + " s; a number is not looked up");
}
