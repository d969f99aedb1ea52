// pelora_collector: a local stand-in for the tracking service and the in-app message service. It
// listens on 127.0.0.1 over HTTPS, prints one line per batch, tracking event, message pull and open
// notification, and stops on SIGINT or SIGTERM with a summary. Point a client at it with connect-to
// entries and its CA file (printed at start).
#include <signal.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pelora/core/service_hosts.hpp"
#include "pelora/platform/console.hpp"
#include "tools/collector/collector.hpp"

namespace {

// What the collector tells the person who started it.
void say(const std::string& line) {
  pelora::platform::printLine(line, pelora::LogLevel::info);
}

constexpr const char* usage = R"(usage: pelora_collector [options]
  --port N            listen on 127.0.0.1:N (default 8443; 0 picks a free port)
  --certs DIR         ca.pem, server.pem and server-key.pem to use (default: the ones made at build)
  --jsonl FILE        append every accepted batch and tracking event to FILE, one JSON line each
  --jsonl-max-string N
                      cut strings longer than N bytes in those lines (marked with their length)
  --ready-file FILE   once listening, write the connect-to entry that sends the production
                      tracking host here (HOST:443:127.0.0.1:PORT) to FILE
  --fail-status CODE  the status that the two options below answer with (default 503)
  --fail-first N      answer the first N requests with the failure status
  --fail-seconds S    answer every request with the failure status for the first S seconds
  --fail-sequence S,S,...
                      answer the first POSTs to the tracking endpoints with these statuses, one
                      each in turn (a 2xx one lets its request through as usual), then as usual
  --max-batch-events N
                      answer a batch of more than N events 413, keeping none of it
  --refuse-key KEY:STATUS
                      answer every batch whose writeKey is KEY with STATUS (repeatable)
  --retry-after VALUE send "Retry-After: VALUE" (seconds or an HTTP date) with every answer that
                      the failure options above give
  --delay-ms N        hold every answer back N milliseconds, like a slow service
  --iam-message FILE  queue the in-app message in FILE (an IAMData JSON object) for the first
                      pull of any workspace (repeatable; shown in the order given)
  --iam-hold-ms N     hold a message pull this long when no message is queued (default 25000);
                      messages can also be queued while it runs: POST /iam/messages[?workspace=W]
  --quiet             no line per request
Stops on SIGINT or SIGTERM and prints what it received.
)";

[[noreturn]] void fail(const std::string& message) {
  std::cerr << "pelora_collector: " << message << "\n" << usage;
  std::exit(2);
}

int number(std::string_view option, std::string_view text) {
  int value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < 0) {
    fail(std::string(option) + " takes a whole number, not \"" + std::string(text) + "\"");
  }
  return value;
}

int httpStatus(std::string_view option, std::string_view text) {
  const int status = number(option, text);
  if (status < 100 || status > 599) {
    fail(std::string(option) + ": " + std::string(text) + " is not an HTTP status");
  }
  return status;
}

// "429,413,500"
std::vector<int> httpStatuses(std::string_view option, std::string_view text) {
  std::vector<int> statuses;
  for (std::size_t start = 0;;) {
    const std::size_t comma = text.find(',', start);
    statuses.push_back(httpStatus(option, text.substr(start, comma - start)));
    if (comma == std::string_view::npos) return statuses;
    start = comma + 1;
  }
}

// Written whole and then renamed, so a script polling the file never reads half a line.
void writeReadyFile(const std::string& path, const std::string& line) {
  const std::string temporary = path + ".tmp";
  {
    std::ofstream file(temporary, std::ios::trunc);
    file << line << '\n';
    if (!file) fail("cannot write " + temporary);
  }
  std::error_code error;
  std::filesystem::rename(temporary, path, error);
  if (error) fail("cannot write " + path + ": " + error.message());
}

}  // namespace

int main(int argc, char** argv) {
  pelora::collector::CollectorOptions options;
  options.port = 8443;
  options.printLines = true;
  options.keepEvents = false;  // a long run must not grow; the JSON-lines file keeps them
  std::string readyFile;
  int failStatus = 503;
  int failFirst = 0;
  int failSeconds = 0;
  int delayMilliseconds = 0;
  std::vector<int> failSequence;
  std::size_t maxBatchEvents = 0;
  std::vector<std::pair<std::string, int>> refusedKeys;
  std::string retryAfter;
  for (int i = 1; i < argc; ++i) {
    const std::string_view option = argv[i];
    if (option == "-h" || option == "--help") {
      std::cout << usage;
      return 0;
    }
    if (option == "--quiet") {
      options.printLines = false;
      continue;
    }
    if (i + 1 >= argc) fail(std::string(option) + " needs a value");
    const std::string value = argv[++i];
    if (option == "--port") {
      options.port = number(option, value);
    } else if (option == "--certs") {
      options.certificates = pelora::collector::Certificates::inDirectory(value);
    } else if (option == "--jsonl") {
      options.jsonLinesFile = value;
    } else if (option == "--jsonl-max-string") {
      options.jsonLinesMaxString = static_cast<std::size_t>(number(option, value));
    } else if (option == "--ready-file") {
      readyFile = value;
    } else if (option == "--fail-status") {
      failStatus = httpStatus(option, value);
    } else if (option == "--fail-first") {
      failFirst = number(option, value);
    } else if (option == "--fail-seconds") {
      failSeconds = number(option, value);
    } else if (option == "--fail-sequence") {
      failSequence = httpStatuses(option, value);
    } else if (option == "--max-batch-events") {
      maxBatchEvents = static_cast<std::size_t>(number(option, value));
    } else if (option == "--refuse-key") {
      const auto colon = value.rfind(':');
      if (colon == std::string::npos || colon == 0) fail("--refuse-key takes KEY:STATUS");
      refusedKeys.emplace_back(value.substr(0, colon), httpStatus(option, value.substr(colon + 1)));
    } else if (option == "--retry-after") {
      retryAfter = value;
    } else if (option == "--delay-ms") {
      delayMilliseconds = number(option, value);
    } else if (option == "--iam-message") {
      std::ifstream file(value, std::ios::binary);
      if (!file) fail("cannot read " + value);
      options.inAppMessages.emplace_back(std::istreambuf_iterator<char>(file),
                                         std::istreambuf_iterator<char>());
    } else if (option == "--iam-hold-ms") {
      options.inAppMessageHold = std::chrono::milliseconds(number(option, value));
    } else {
      fail("unknown option " + std::string(option));
    }
  }

  // Taken by sigwait below; every thread started from here on inherits the mask.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  try {
    pelora::collector::Collector collector(options);
    if (failFirst > 0) collector.failNext(failStatus, failFirst);
    if (failSeconds > 0) collector.failFor(failStatus, std::chrono::seconds(failSeconds));
    collector.answerInTurn(failSequence);
    collector.rejectBatchesLargerThan(maxBatchEvents);
    for (const auto& [key, status] : refusedKeys) collector.refuseWriteKey(key, status);
    collector.retryAfter(retryAfter);
    collector.delayAnswers(std::chrono::milliseconds(delayMilliseconds));
    const std::string host(pelora::productionTrackingHost);
    say("pelora_collector: listening on https://127.0.0.1:" + std::to_string(collector.port()));
    say("  trust     " + collector.certificates().caFile);
    say("  reach it  " + collector.connectTo(host));
    const std::string iamURL(pelora::productionIAMBaseURL);
    const std::string iamHost = iamURL.substr(iamURL.find("://") + 3);
    say("  messages  " + collector.connectTo(iamHost) + " (" +
        std::to_string(options.inAppMessages.size()) + " queued)");
    if (!readyFile.empty()) writeReadyFile(readyFile, collector.connectTo(host));

    int signal = 0;
    sigwait(&stopSignals, &signal);
    collector.stop();
    say("pelora_collector: received " + collector.summary());
    say("pelora_collector: " + collector.byteSummary());
  } catch (const std::exception& error) {
    std::cerr << "pelora_collector: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
