#include "tools/runner.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/unique_fd.h"
#include "tools/command.h"
#include "tools/line_reader.h"
#include "tools/printer.h"

namespace {

// Why the line is no command, or an empty text when it has been carried out.
std::string ExecuteLine(const std::string& line, Session& session) {
  const std::vector<std::string> words = SplitWords(line);
  if (words.empty()) return {};
  const CommandResult result = ParseCommand(words, true);
  if (result.command) session.Execute(*result.command);
  return result.error;
}

ExitStatus RunDescriptor(int fd, Session& session) {
  LineReader reader(fd);
  std::string error;
  for (unsigned long number = 1; error.empty() && !session.Interrupted(); ++number) {
    const auto line = reader.Next([&] { session.WaitReadable(fd); });
    if (!line) break;
    error = ExecuteLine(*line, session);
    if (!error.empty()) error.insert(0, "line " + std::to_string(number) + ": ");
  }
  if (reader.Error() != 0) error = std::string("cannot read the commands: ") + std::strerror(reader.Error());
  session.Finish();
  if (error.empty()) return session.Status();
  PrintError(error);
  return ExitStatus::USAGE;
}

}  // namespace

ExitStatus RunLines(const std::string& file, Session& session) {
  if (file.empty()) return RunDescriptor(STDIN_FILENO, session);
  const UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) {
    PrintError(file + ": " + std::strerror(errno));
    return ExitStatus::USAGE;
  }
  return RunDescriptor(fd.Get(), session);
}
