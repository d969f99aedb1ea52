// Storage's answers to a service that refuses a batch: cutting a finished batch into halves (for a
// batch too large to be taken) and setting one aside that is refused for good.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "pelora/platform/logging.hpp"
#include "pelora/platform/private_files.hpp"
#include "pelora/state/batch_writer.hpp"

namespace pelora {
namespace {

using detail::kTempExtension;

// Writes `text` as a new finished batch named `path`, durably; false when it cannot, leaving
// nothing behind.
bool writeNewBatch(const std::filesystem::path& directory, const std::string& path,
                   std::string_view text) {
  // Hidden while it is written: listings skip it, so nobody sends half a batch.
  std::string temporary = (directory / ".split-XXXXXX").native();
  platform::UniqueFd file = platform::createTemporaryFile(temporary);
  if (!file) return false;
  if (!detail::writeAll(file.get(), text) || ::fdatasync(file.get()) != 0 ||
      detail::renameNoReplace(temporary.c_str(), path.c_str()) != 0) {
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace

std::optional<std::pair<std::filesystem::path, std::filesystem::path>> Storage::splitBatch(
    const std::filesystem::path& file) {
  return lock_.sync(
      [&]() noexcept -> std::optional<std::pair<std::filesystem::path, std::filesystem::path>> {
        try {
          const std::string& path = file.native();
          if (!path.ends_with(kTempExtension)) return std::nullopt;
          platform::UniqueFd fd = platform::openOwnFile(path, O_RDONLY);
          struct stat info;
          if (!fd || ::fstat(fd.get(), &info) != 0) return std::nullopt;
          const auto text = detail::readAll(fd.get(), info.st_size);
          if (!text) return std::nullopt;
          const detail::BatchScan scan = detail::scanBatch(*text, true);
          if (scan.kind != detail::BatchScan::Kind::closed || scan.eventSpans.size() < 2)
            return std::nullopt;
          // The first half keeps the header and its events, then the closing text from after
          // the last event; the second keeps the header, then everything from its first event.
          const auto& spans = scan.eventSpans;
          const std::size_t middle = spans.size() / 2;
          const std::string_view all(*text);
          std::string first(all.substr(0, spans[middle - 1].second));
          first.append(all.substr(spans.back().second));
          std::string second(all.substr(0, spans.front().first));
          second.append(all.substr(spans[middle].first));

          const std::string stem = path.substr(0, path.size() - kTempExtension.size());
          const std::string firstPath =
              stem + std::string(detail::kFirstHalfInfix) + std::string(kTempExtension);
          const std::string secondPath =
              stem + std::string(detail::kSecondHalfInfix) + std::string(kTempExtension);
          if (!writeNewBatch(state_->directory, firstPath, first)) return std::nullopt;
          if (!writeNewBatch(state_->directory, secondPath, second)) {
            ::unlink(firstPath.c_str());
            return std::nullopt;
          }
          // A crash before this line sends the events twice, which the service's message ids
          // tell apart; losing them would be worse.
          ::unlink(path.c_str());
          platform::syncDirectory(state_->directory);
          state_->known.reset();  // the disk bound lists the halves afresh
          return std::pair{std::filesystem::path(firstPath), std::filesystem::path(secondPath)};
        } catch (const std::exception&) {
          return std::nullopt;
        }
      });
}

bool Storage::setAsideRefused(const std::filesystem::path& file) {
  return lock_.sync([&]() noexcept {
    try {
      const std::string& path = file.native();
      if (!path.ends_with(kTempExtension)) return false;
      const std::string stem = path.substr(0, path.size() - kTempExtension.size());
      const int error = detail::renameToFreeName(path, stem, detail::kRefusedExtension);
      if (error != 0) return false;
      platform::syncDirectory(state_->directory);
      state_->known.reset();  // the disk bound lists it afresh under its new name
      platform::log::message("The service refuses batch " + file.filename().string() +
                                 "; it is kept as " + stem +
                                 std::string(detail::kRefusedExtension) + " and not sent again.",
                             LogFilterKind::error, "Storage::setAsideRefused", __LINE__);
      return true;
    } catch (const std::exception&) {
      return false;
    }
  });
}

}  // namespace pelora
