#include "platform/journal.h"

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/resource.h>

#include <filesystem>

#include "platform/journal/line_limit.h"
#include "platform/journal/line_output.h"

namespace {

TEST(LineLimitTest, EqualLinesAndAllLinesAreLimitedAndEveryNumberIsTold) {
  const struct {
    int after;  // s
    const char* kinds;
    int each, admitted;
    std::string told;  // with the last line
  } steps[] = {
      {0, "a", 100, 20, "80 a0;"},
      {10, "b", 1, 1, ""},
      {20, "a", 5, 3, "2 a0;"},
      {0, "a", 4, 0, ""},
      {40, "b", 1, 1, "4 a0;"},  // of another kind, once the line itself might come again
      {1000, "defghijklmnopqrst", 20, 200, "140 ;"},
      {1, "bc", 15, 20, ""},  // the number of several kinds comes once in 10 s
      {9, "b", 1, 1, "10 ;"},
  };
  journal::LineLimit limit;
  journal::Clock::time_point now{};
  for (const auto& step : steps) {
    now += std::chrono::seconds(step.after);
    int admitted = 0;
    for (const char* kind = step.kinds; *kind != '\0'; ++kind) {
      for (int i = 0; i < step.each; ++i) {
        admitted += limit.Admit(*kind + std::to_string(i), now) ? 1 : 0;
      }
    }
    EXPECT_EQ(admitted, step.admitted) << step.kinds;
    std::string told;
    limit.TellLeftOut(now, [](u64, std::string_view) { return false; });
    limit.TellLeftOut(now, [&](u64 number, std::string_view example) {
      told += admitted > 0 ? std::to_string(number).append(" ").append(example) + ";" : "";
      return admitted > 0;
    });
    EXPECT_EQ(told, step.told) << step.kinds;
  }
}

struct Ends {
  UniqueFd reader, writer;
};
Ends Pipe() {
  int ends[2] = {};
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}
Ends NamedPipe() {
  const std::string path = testing::TempDir() + "natagent-journal-" + std::to_string(::getpid());
  EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
  Ends ends{UniqueFd(::open(path.c_str(), O_RDONLY | O_NONBLOCK)), UniqueFd(::open(path.c_str(), O_WRONLY))};
  std::filesystem::remove(path);
  return ends;
}
Ends Terminal() {
  int master = -1;
  int slave = -1;
  const termios raw{};
  EXPECT_EQ(::openpty(&master, &slave, nullptr, &raw, nullptr), 0);
  return {UniqueFd(master), UniqueFd(slave)};
}
template <int type>
Ends Sockets() {
  int ends[2] = {};
  EXPECT_EQ(::socketpair(AF_UNIX, type, 0, ends), 0);
  const int least = 0;  // so that a stream takes only a part of a long line
  EXPECT_EQ(::setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &least, sizeof least), 0);
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

TEST(LineOutputTest, AStuckReaderHoldsNobodyUpAndGetsWholeLines) {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const struct {
    Ends (*open)();
    rlim_t descriptors;
  } cases[] = {{Pipe, limit.rlim_cur},
               {NamedPipe, limit.rlim_cur},
               {NamedPipe, 3},
               {Terminal, limit.rlim_cur},
               {Terminal, 3},
               {Sockets<SOCK_STREAM>, limit.rlim_cur},
               {Sockets<SOCK_DGRAM>, limit.rlim_cur}};
  for (const auto& one : cases) {
    SCOPED_TRACE(&one - cases);
    Ends ends = one.open();
    const int writer = ends.writer.Get();
    const int flags = ::fcntl(writer, F_GETFL);
    const rlimit allowed{one.descriptors, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &allowed);
    journal::LineOutput output;
    std::string taken, read;
    for (std::size_t length = 2000;; length = length % 4000 + 7) {
      const std::string line = std::string(length, 'x') + "\n";
      if (!output.Write(writer, line)) {
        break;
      }
      taken += line;
    }
    // What was taken in part comes whole once there is room.
    char part[4096];
    for (bool ended = false; !ended || !read.ends_with("end\n");) {
      ended = ended || output.Write(writer, "end\n");
      const ssize_t count = ::read(ends.reader.Get(), part, sizeof part);
      ASSERT_GT(count, 0);
      read.append(part, static_cast<std::size_t>(count));
    }
    EXPECT_EQ(read, taken + "end\n");
    EXPECT_EQ(::fcntl(writer, F_GETFL), flags);
    // No signal ends this test when nobody is left to read.
    ends.reader.Reset();
    EXPECT_FALSE(output.Write(writer, "x\n"));
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

TEST(JournalTest, NoTextMakesALineOfItsOwnAndLongOnesAreCut) {
  const std::string report[] = {"a\r\nb", "100% \xC3\xA4", std::string(5000, 'y')};
  testing::internal::CaptureStderr();
  errno = 4711;
  JournalErrors(report);
  EXPECT_EQ(errno, 4711);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "a??b\n100% \xC3\xA4\n" + std::string(4095, 'y') + "\n");
}

}  // namespace
