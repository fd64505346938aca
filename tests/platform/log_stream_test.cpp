#include "platform/vxlogutils/log_stream.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/platform/captured_journal.h"
#include "tests/platform/own_namespace.h"

namespace {

namespace fs = std::filesystem;

class LogStreamTest : public NamespaceTest {
 protected:
  LogStreamTest() { ::setenv("NATAGENT_LOG_DIR", m_directory.c_str(), 1); }
  ~LogStreamTest() override { fs::remove_all(m_directory); }

  std::string Log(const std::string& suffix = "") const {
    std::ostringstream text;
    text << std::ifstream(m_file + suffix, std::ios::binary).rdbuf();
    return text.str();
  }
  static void Format(LogStream& log, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    log.TRACE(3, format, arguments, 4);
    va_end(arguments);
  }
  // Goes on logging until the file is there again.
  void WriteUntilItIsBack(LogStream& log) const {
    while (!fs::exists(m_file)) log.TRACE("x", 3, 4);
  }

  char m_name[28] = "/tmp/natagent-log-XXXXXX";
  const std::string m_directory = ::mkdtemp(m_name);
  const std::string m_file = m_directory + "/natagent.log";
};

TEST_F(LogStreamTest, TextsOfAnyLengthAreAppendedUnchangedHeldOrNot) {
  std::ofstream(m_file) << "before ";
  LogStream log("natagent.log", true, true, 0, 2, 64, true);
  log.TRACE("100% %s %n ", 3, 0);
  Format(log, "id %llu %s\r\n", 0x1'0000'0001ULL, "50%");
  std::string expected = "before 100% %s %n id 4294967297 50%\r\n";
  for (const std::size_t length : {1023U, 1024U, 100000U}) {
    Format(log, "%s|", std::string(length, 'x').c_str());
    expected += std::string(length, 'x') + "|";
  }
  EXPECT_EQ(Log(), expected);
  log.Hold();
  log.TRACE("one ", 3, 4);
  std::thread([&log] { log.TRACE("two ", 3, 4); }).join();
  EXPECT_EQ(Log(), expected);
  const std::string large(17 * 64, 'x');
  log.TRACE(large.c_str(), 3, 4);
  EXPECT_EQ(Log(), expected += "one two " + large) << "more than the buffer takes";
  log.TRACE("three ", 3, 4);
  log.Flush();
  log.TRACE("four", 3, 4);
  EXPECT_EQ(Log(), expected += "three four");
}

TEST_F(LogStreamTest, RotationKeepsTheLimitToTheByte) {
  using Sizes = std::vector<std::size_t>;
  const struct {
    int keep;
    bool hold;
    Sizes texts;
    Sizes files;  // the log, then .1 and so on
  } cases[] = {
      {2, false, {60, 40}, {100}},
      {2, false, {60, 41}, {41, 60}},
      {2, false, {100, 100, 100, 100}, {100, 100, 100}},
      {2, false, {10, 500, 10}, {10, 500, 10}},
      {1, false, {60, 60, 61}, {61, 60}},
      {0, false, {60, 61}, {61}},
      {2, true, {60, 40, 1}, {1, 100}},
      {2, true, {30, 30, 30, 30, 30, 30, 30}, {30, 90, 90}},
  };
  for (const auto& one : cases) {
    {
      LogStream log("natagent.log", true, true, 100, one.keep, 64, true);
      if (one.hold) log.Hold();
      for (const std::size_t length : one.texts) log.TRACE(std::string(length, 'x').c_str(), 3, 4);
    }
    Sizes found;
    for (std::string path = m_file; fs::exists(path);) {
      found.push_back(fs::file_size(path));
      fs::remove(path);
      path = m_file + "." + std::to_string(found.size());
    }
    EXPECT_EQ(found, one.files) << testing::PrintToString(one.texts) << one.keep << one.hold;
    EXPECT_TRUE(fs::is_empty(m_directory));
  }
}

TEST_F(LogStreamTest, ConcurrentTextsStayWholeAndInOrderAcrossRotation) {
  {
    LogStream log("natagent.log", true, true, 20000, 100, 2048, true);
    std::vector<std::jthread> writers;
    for (int writer = 0; writer < 4; ++writer) {
      writers.emplace_back([&log, writer] {
        for (int i = 0; i < 2000; ++i) Format(log, "%d:%d\n", writer, i);
      });
    }
    for (int i = 0; i < 200; ++i, log.Flush()) log.Hold();
  }
  std::string all;
  for (int i = 100; i > 0; --i) all += Log("." + std::to_string(i));
  std::istringstream lines(all + Log());
  int next[4] = {};
  for (std::string line; std::getline(lines, line);) {
    int& expected = next[static_cast<unsigned>(line[0] - '0') % 4];
    ASSERT_EQ(line.substr(1), ":" + std::to_string(expected++));
  }
  for (const int count : next) EXPECT_EQ(count, 2000);
}

TEST_F(LogStreamTest, AFileThatIsMovedAwayOrRemovedWithItsDirectoryComesBack) {
  LogStream log("natagent.log", true, true, 204800, 2, 2048, true);
  fs::rename(m_file, m_file + ".moved");
  WriteUntilItIsBack(log);
  fs::remove_all(m_directory);
  LogStream early("natagent.log", true, true, 204800, 2, 2048, true);
  for (int i = 0; i < 100; ++i) log.TRACE("lost", 3, 4);
  fs::create_directory(m_directory);
  WriteUntilItIsBack(log);
  fs::remove(m_file);
  WriteUntilItIsBack(early);
  EXPECT_EQ(Log().find_first_not_of('x'), std::string::npos);
}

TEST_F(LogStreamTest, NothingButAFileOfOneNameIsWrittenAndEachReasonIsSaidOnce) {
  const std::string other = m_directory + "/other";
  std::ofstream(other).close();
  const struct {
    std::string make, reason;
  } cases[] = {
      {"ln -s other natagent.log", "it is a symbolic link"},
      {"ln other natagent.log", "it is a hard link to a file that has another name too"},
      {"ln -s nothing natagent.log", "it is a symbolic link"},
      {"mkfifo natagent.log", "it is a pipe"},
      {"mkdir natagent.log", "it is a directory"},
      {"mknod natagent.log c 1 7", "it is a device"},
      {"python3 -c 'import socket; socket.socket(socket.AF_UNIX).bind(\"natagent.log\")'", "it is a socket"},
  };
  // Journal lines go to a file, which grows when one comes.
  const auto journalSize = [] {
    struct stat found {};
    ::fstat(STDERR_FILENO, &found);
    return found.st_size;
  };
  LogStream log("natagent.log", true, true, 204800, 2, 2048, true);
  testing::internal::CaptureStderr();
  std::string expected;
  for (const auto& one : cases) {
    const auto before = journalSize();
    fs::remove_all(m_file);
    Sh("cd " + m_directory + " && " + one.make);
    while (journalSize() == before) {
      log.TRACE("", 3, 4);  // looks at the file, and never fills it up to its rotation
    }
    expected += "the log file " + m_file + " cannot be opened: " + one.reason + "; its texts are lost until it can\n";
  }
  EXPECT_EQ(fs::file_size(other), 0);
  EXPECT_FALSE(fs::exists(m_directory + "/nothing"));
  fs::remove_all(m_file);
  WriteUntilItIsBack(log);
  EXPECT_EQ(CapturedJournal(), expected + "the log file " + m_file + " is written again\n");
}

// A file system of 16 KiB of the test's own, in a mount namespace of a thread's own.
TEST_F(LogStreamTest, AFullDiskDropsWholeTextsAndIsWrittenAgainOnceThereIsRoom) {
  std::thread([this] {
    ASSERT_EQ(::unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(::mount("none", m_directory.c_str(), "tmpfs", 0, "size=16k"), 0);
    std::ofstream(m_directory + "/filler") << std::string(3 * 4096, 'x');
    LogStream log("natagent.log", true, true, 204800, 2, 2048, true);
    const std::string text = std::string(998, 'x') + "\r\n";
    for (int i = 0; i < 10; ++i) log.TRACE(text.c_str(), 3, 4);
    EXPECT_EQ(Log(), text + text + text + text);
    fs::remove(m_directory + "/filler");
    log.TRACE("after\r\n", 3, 4);
    EXPECT_EQ(Log(), text + text + text + text + "after\r\n");
  }).join();
}

}  // namespace
