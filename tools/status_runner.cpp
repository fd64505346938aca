#include "tools/status_runner.h"

#include <vector>

#include "tools/interrupt_watch.h"
#include "tools/open_metrics.h"
#include "tools/status_connection.h"
#include "tools/status_plain.h"

namespace {

using Json = nlohmann::ordered_json;

std::string JsonLine(const Json& object) { return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n"; }

class Runner {
 public:
  Runner(const StatusCommand& command, std::chrono::milliseconds timeout, Printer& printer)
      : m_command(command), m_timeout(timeout), m_printer(printer) {}

  ExitStatus Run(const std::string& runtimeDir) {
    if (!m_connection.Open(runtimeDir)) {
      return Fail(ExitStatus::NO_CONNECTION, m_connection.Error());
    }
    switch (m_command.kind) {
      case StatusCommand::Kind::MONITOR:
        return Monitor();
      case StatusCommand::Kind::EXPLAIN:
        return Explain();
      case StatusCommand::Kind::STATUS:
        break;
    }
    return m_command.openMetrics ? Expose() : Status();
  }

 private:
  ExitStatus Fail(ExitStatus status, const std::string& text) {
    m_printer.Print(m_printer.IsJson() ? JsonLine(Json{{"error", text}}) : "natctl: " + text + "\n", true);
    m_printer.Flush();
    return status;
  }

  ExitStatus Done() { return m_printer.Flush() ? ExitStatus::ANSWERED : ExitStatus::UNANSWERED; }

  // The answer, or nothing after a failure, whose status is in m_failed.
  std::optional<Json> Ask(const Json& request) {
    const auto deadline = StatusConnection::Clock::now() + m_timeout;
    std::optional<Json> answer;
    if (m_connection.Send(request, deadline)) {
      answer = m_connection.Next(deadline);
    }
    if (!answer) {
      m_failed = Fail(ExitStatus::NO_CONNECTION, m_connection.Error());
    } else if (answer->contains("error")) {
      m_failed = Fail(ExitStatus::UNANSWERED, (*answer)["error"].get<std::string>());
      answer.reset();
    }
    return answer;
  }

  // Every answer to a GET, page by page. False after a failure.
  template <class Tell>
  bool Get(const std::string& topic, Tell tell) {
    Json request{{"get", topic}};
    for (;;) {
      const std::optional<Json> answer = Ask(request);
      if (!answer) {
        return false;
      }
      tell(*answer);
      if (!answer->contains("next")) {
        return true;
      }
      request["next"] = (*answer)["next"];
    }
  }

  ExitStatus Status() {
    bool isEmpty = true;
    const bool isTold = Get(m_command.topic, [&](const Json& answer) {
      isEmpty = isEmpty && !answer.contains("value") && answer["rows"].empty();
      if (answer.contains("value")) {
        Print(answer["value"], [this](const Json& value) { return PlainValue(m_command.topic, value); });
        return;
      }
      for (const Json& each : answer["rows"]) {
        Print(each, [this](const Json& row) { return PlainRow(m_command.topic, row); });
      }
      m_printer.Flush();
    });
    if (isTold && isEmpty && !m_printer.IsJson()) {
      m_printer.Print("none\n", false);
    }
    return isTold ? Done() : m_failed;
  }

  ExitStatus Expose() {
    Json summary;
    std::vector<Json> counters;
    const auto takeSummary = [&](const Json& answer) { summary = answer["value"]; };
    const auto takeCounters = [&](const Json& answer) {
      counters.insert(counters.end(), answer["rows"].begin(), answer["rows"].end());
    };
    if (!Get("summary", takeSummary) || !Get("counters", takeCounters)) {
      return m_failed;
    }
    m_printer.Print(OpenMetrics(summary, counters), false);
    return Done();
  }

  ExitStatus Explain() {
    const std::optional<Json> answer = Ask(m_command.request);
    if (!answer) {
      return m_failed;
    }
    Print((*answer)["explain"], PlainExplanation);
    return Done();
  }

  ExitStatus Monitor() {
    const InterruptWatch interrupt;
    if (!Ask(m_command.request)) {
      return m_failed;
    }
    while (const auto event = m_connection.Next(StatusConnection::Clock::time_point::max(), interrupt.Fd())) {
      Print(*event, PlainEvent);
      if (!m_printer.Flush()) {
        return ExitStatus::UNANSWERED;
      }
    }
    return m_connection.Error().empty() ? Done() : Fail(ExitStatus::NO_CONNECTION, m_connection.Error());
  }

  template <class Plain>
  void Print(const Json& object, Plain plain) {
    m_printer.Print(m_printer.IsJson() ? JsonLine(object) : plain(object), false);
  }

  const StatusCommand& m_command;
  const std::chrono::milliseconds m_timeout;
  Printer& m_printer;
  StatusConnection m_connection;
  ExitStatus m_failed = ExitStatus::ANSWERED;
};

}  // namespace

ExitStatus RunStatus(const StatusCommand& command, const std::string& runtimeDir, std::chrono::milliseconds timeout,
                     Printer& printer) {
  return Runner(command, timeout, printer).Run(runtimeDir);
}
