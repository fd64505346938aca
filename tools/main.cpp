#include <cerrno>
#include <cstring>
#include <string>

#include "platform/standard_descriptors.h"
#include "tools/command_line.h"
#include "tools/printer.h"
#include "tools/runner.h"
#include "tools/session.h"
#include "tools/status_runner.h"

int main(int argc, char** argv) {
  if (!FillStandardDescriptors()) {
    PrintError(std::string("/dev/null: ") + std::strerror(errno));
    return static_cast<int>(ExitStatus::UNANSWERED);
  }
  int exitCode = 0;
  const std::optional<NatctlLine> line = ParseNatctlLine(argc, argv, exitCode);
  if (!line) return exitCode;

  Printer printer(line->json);
  if (line->status) {
    return static_cast<int>(RunStatus(*line->status, line->runtimeDir, line->timeouts.answer, printer));
  }
  Session session(line->runtimeDir, line->timeouts, printer);
  if (line->command.kind == CommandKind::RUN) return static_cast<int>(RunLines(line->command.word, session));
  session.Execute(line->command);
  session.Finish();
  return static_cast<int>(session.Status());
}
