#include "platform/journal.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <type_traits>

#include "platform/journal/line_limit.h"
#include "platform/journal/line_output.h"
#include "platform/vxsysutils/thread_mutex.h"

namespace {

// The number is the priority that systemd reads at the beginning of a line.
constexpr std::string_view kError = "<3>";
constexpr std::string_view kWarning = "<4>";
constexpr std::string_view kNotice = "<5>";

// Whether standard error is the stream that the variable names as DEVICE:INODE, and not one that was put in its place.
bool IsJournalStream(const char* text) {
  struct stat status {};
  if (text == nullptr || ::fstat(STDERR_FILENO, &status) != 0) {
    return false;
  }
  const char* const end = text + std::strlen(text);
  u64 device = 0;
  u64 inode = 0;
  const auto colon = std::from_chars(text, end, device);
  return colon.ptr != end && *colon.ptr == ':' && std::from_chars(colon.ptr + 1, end, inode).ptr == end &&
         device == status.st_dev && inode == status.st_ino;
}

bool UnderServiceManager() {
  static const bool under = IsJournalStream(::getenv("JOURNAL_STREAM"));
  return under;
}

// A line put together in place: no allocation that could fail.
class Line {
 public:
  explicit Line(std::string_view priority) { Append(UnderServiceManager() ? priority : std::string_view()); }

  Line& Append(std::string_view text) {
    for (const char c : text.substr(0, sizeof m_text - 1 - m_size)) {
      m_text[m_size++] = (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) ? '?' : c;
    }
    return *this;
  }
  Line& AppendLines(u64 number) {
    char digits[20];
    Append({digits, static_cast<std::size_t>(std::to_chars(digits, std::end(digits), number).ptr - digits)});
    return Append(number == 1 ? " line " : " lines ");
  }
  // The whole line; nothing may be appended to it any more.
  std::string_view End() {
    m_text[m_size++] = '\n';
    return {m_text, m_size};
  }

 private:
  char m_text[journal::kMaxLine];
  std::size_t m_size = 0;
};

// One thread at a time.
class Journal {
 public:
  // Counts as one line of that kind.
  template <class Text>
  void Say(std::string_view priority, std::string_view kind, std::span<const Text> texts) {
    const journal::Clock::time_point now = journal::Clock::now();
    if (texts.empty() || !(priority == kError ? m_errors : m_notices).Admit(kind, now)) {
      return;
    }
    SayLeftOut(now);
    for (const Text& text : texts) {
      m_dropped += Write(Line(priority).Append(text)) ? 0 : 1;
    }
  }

  // No line comes any more: the numbers that are left.
  void Finish() {
    SayLeftOut(journal::Clock::now() + std::chrono::hours(1));
    SayDropped();
  }

 private:
  void SayLeftOut(journal::Clock::time_point now) {
    for (journal::LineLimit* limit : {&m_errors, &m_notices}) {
      limit->TellLeftOut(now, [this](u64 number, std::string_view example) {
        Line line(kNotice);
        line.Append("journal: ").AppendLines(number);
        line.Append(example.empty() ? "of several kinds left out" : "like this left out: ").Append(example);
        return Write(line);
      });
    }
  }

  bool SayDropped() {
    if (m_dropped == 0) {
      return true;
    }
    Line line(kNotice);
    line.Append("journal: ").AppendLines(m_dropped).Append("dropped here, standard error did not take them");
    if (!m_output.Write(STDERR_FILENO, line.End())) {
      return false;
    }
    m_dropped = 0;
    return true;
  }

  bool Write(Line& line) { return SayDropped() && m_output.Write(STDERR_FILENO, line.End()); }

  // Apart, so that what parties can cause at will takes no error's place.
  journal::LineLimit m_errors;
  journal::LineLimit m_notices;
  journal::LineOutput m_output;
  u64 m_dropped = 0;
};

// Other threads may still use them while the library is unloaded.
constinit ThreadMutex s_mutex;
constinit Journal s_journal NAT_GUARDED_BY(s_mutex);
static_assert(std::is_trivially_destructible_v<ThreadMutex> && std::is_trivially_destructible_v<Journal>);

template <class Text>
void Say(std::string_view priority, std::string_view kind, std::span<const Text> texts) {
  const int error = errno;
  {
    const ScopedLock lock(s_mutex);
    s_journal.Say(priority, kind, texts);
  }
  errno = error;
}

void Say(std::string_view priority, std::string_view kind, std::string_view text) {
  Say(priority, kind, std::span<const std::string_view>(&text, 1));
}

// At exit, and before the library is unloaded.
__attribute__((destructor)) void Finish() {
  const ScopedLock lock(s_mutex);
  s_journal.Finish();
}

}  // namespace

void JournalNotice(std::string_view text) noexcept { Say(kNotice, text, text); }
void JournalNotice(std::string_view text, std::string_view kind) noexcept { Say(kNotice, kind, text); }
void JournalWarning(std::string_view text) noexcept { Say(kWarning, text, text); }
void JournalWarning(std::string_view text, std::string_view kind) noexcept { Say(kWarning, kind, text); }
void JournalError(std::string_view text) noexcept { Say(kError, text, text); }
void JournalErrors(std::span<const std::string> lines) noexcept {
  Say(kError, lines.empty() ? std::string_view() : std::string_view(lines.front()), lines);
}
