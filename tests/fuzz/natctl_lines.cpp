// The lines of `natctl run`: what is accepted can be sent.

#include <sys/mman.h>
#include <unistd.h>

#include "platform/messaging/frame.h"
#include "platform/unique_fd.h"
#include "tests/fuzz/fuzz.h"
#include "tools/command.h"
#include "tools/line_reader.h"
#include "tools/stun_command.h"

namespace {

UniqueFd FileOf(const std::uint8_t* data, std::size_t size) {
  UniqueFd file(::memfd_create("lines", MFD_CLOEXEC));
  fuzz::Require(
      file && ::write(file.Get(), data, size) == static_cast<ssize_t>(size) && ::lseek(file.Get(), 0, SEEK_SET) == 0,
      "a file of lines");
  return file;
}

void CheckCommand(const Command& command) {
  using messaging::FrameKind;
  messaging::Frame frame;
  frame.kind = command.kind == CommandKind::UPDATE ? FrameKind::UPDATE : FrameKind::CS_LIST_REQUEST;
  frame.text = command.destination;
  frame.items.resize(command.items.size());
  frame.texts.assign(command.texts.begin(), command.texts.end());
  std::string packet;
  fuzz::Require(messaging::EncodeFrame(frame, packet), "an accepted command fits into a frame");
  fuzz::Require(command.kind != CommandKind::CS || command.items.size() == 1, "a single request has one item");
  fuzz::Require(command.silenceMs >= 0, "a wait has an end");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const UniqueFd file = FileOf(data, size);
  LineReader lines(file.Get());
  while (const auto line = lines.Next([] {})) {
    const std::vector<std::string> words = SplitWords(*line);
    if (words.empty()) {
      continue;
    }
    for (const bool inRun : {false, true}) {
      const CommandResult result = ParseCommand(words, inRun);
      fuzz::Require(result.command.has_value() == result.error.empty(), "a command, or an error");
      if (result.command) {
        CheckCommand(*result.command);
      }
    }
    const StunCommandResult stun = ParseStunCommand(words);
    fuzz::Require(stun.command.has_value() == stun.error.empty(), "servers, or an error");
  }
  return 0;
}
