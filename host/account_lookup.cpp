#include "host/account_lookup.h"

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

constexpr std::size_t kMaxEntry = 1 << 16;  // bytes of a user's entry; far above any
constexpr int kMostHanging = 8;             // threads; each is one reading of a configuration that was given up

std::atomic<int> s_asking = 0;

// What the asking thread and the one that waits share; the last of them frees it.
struct Question {
  std::mutex mutex;
  std::condition_variable answered;
  std::optional<AccountLookup::Answer> answer;
};

// The number that a text consists of; the last one stands for no user at all.
std::optional<uid_t> AsNumber(const std::string& text) {
  uid_t uid = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), uid);
  if (error != std::errc() || end != text.data() + text.size() || uid == static_cast<uid_t>(-1)) {
    return std::nullopt;
  }
  return uid;
}

}  // namespace

AccountLookup::AccountLookup(std::chrono::milliseconds within, Ask ask)
    : m_within(within), m_deadline(std::chrono::steady_clock::now() + within), m_ask(std::move(ask)) {}

AccountLookup::Answer AccountLookup::AskSystem(const std::string& name) {
  std::vector<char> buffer(1024);
  passwd entry{};
  passwd* found = nullptr;
  int error = 0;
  while ((error = ::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
         buffer.size() < kMaxEntry) {
    buffer.resize(buffer.size() * 2);
  }
  return found == nullptr ? Answer{std::nullopt, error} : Answer{found->pw_uid, 0};
}

std::optional<AccountLookup::Answer> AccountLookup::AskInTime(const std::string& name) {
  if (std::chrono::steady_clock::now() >= m_deadline || s_asking >= kMostHanging) {
    return std::nullopt;
  }
  const auto question = std::make_shared<Question>();
  ++s_asking;
  try {
    std::thread([question, name, ask = m_ask] {
      const Answer answer = ask(name);
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

std::string AccountLookup::User(const std::string& name, uid_t& uid) {
  if (const std::optional<uid_t> number = AsNumber(name)) {
    uid = *number;
    return {};
  }
  if (name.find('\0') != std::string::npos) {
    return "a user's name has no NUL inside";
  }
  const std::optional<Answer> answer = AskInTime(name);
  if (answer && answer->uid) {
    uid = *answer->uid;
    return {};
  }
  if (answer && answer->error == 0) {
    return "\"" + name + "\" is not a user of this system";
  }
  m_isPassing = true;
  const std::string seconds = std::to_string(std::chrono::ceil<std::chrono::seconds>(m_within).count());
  return "\"" + name + "\" cannot be looked up: " +
         (answer ? std::strerror(answer->error) : "no answer within " + seconds + " s; a number is not looked up");
}
