#include "pelora/delivery/delivery_schedule.hpp"

#include <algorithm>

namespace pelora {
namespace {

using namespace std::chrono_literals;

// Without a policy, how soon a flush with a deadline sends a failed round again: from 250 ms,
// doubling up to 2 s, so that a slow or briefly failing service gets the whole deadline.
constexpr auto kFirstRetry = 250ms;
constexpr auto kLastRetry = 2s;

}  // namespace

UploadOutcome classifyUpload(const HTTPResult& result) noexcept {
  if (result.succeeded()) return UploadOutcome::delivered;
  if (const auto* error = result.transportError()) {
    switch (error->code) {
      case platform::HttpError::Code::cannotConnect:
      case platform::HttpError::Code::cannotFindHost:
        return UploadOutcome::unreachable;
      case platform::HttpError::Code::fileError:
        return UploadOutcome::gone;
      default:
        return UploadOutcome::retryLater;
    }
  }
  if (const auto* error = result.clientError()) {
    if (error->kind() != HTTPClientErrors::Kind::statusCode) return UploadOutcome::retryLater;
    switch (error->code()) {
      case 413:
        return UploadOutcome::tooLarge;
      case 400:
      case 401:
      case 403:
        return UploadOutcome::refused;
      default:
        return UploadOutcome::retryLater;
    }
  }
  return UploadOutcome::retryLater;
}

DeliverySchedule::DeliverySchedule(std::optional<DeliveryPolicy> policy, std::uint64_t seed)
    : policy_(policy), random_(seed) {}

std::chrono::milliseconds DeliverySchedule::backoff(int failures, std::chrono::milliseconds initial,
                                                    std::chrono::milliseconds cap,
                                                    std::uint64_t random) {
  if (failures <= 0 || initial <= 0ms || cap <= 0ms) return 0ms;
  auto step = std::min(initial, cap);
  for (int i = 1; i < failures && step < cap; ++i) step = std::min(step * 2, cap);
  // Between half and all of the step: never longer than the cap, never near zero.
  const double factor = 0.5 + 0.5 * static_cast<double>(random % 1'000'001) / 1'000'000.0;
  return std::chrono::milliseconds(std::max<std::int64_t>(
      1, static_cast<std::int64_t>(static_cast<double>(step.count()) * factor)));
}

std::chrono::milliseconds DeliverySchedule::nextWait(int failures) {
  return backoff(failures, policy_->initialBackoff, policy_->maxBackoff, random_());
}

DeliverySchedule::Action DeliverySchedule::record(const std::string& batch, UploadOutcome outcome,
                                                  std::optional<std::chrono::seconds> retryAfter,
                                                  Clock::time_point now) {
  unreachable_ = outcome == UploadOutcome::unreachable;
  if (outcome != UploadOutcome::unreachable) offlineFailures_ = 0;
  if (outcome == UploadOutcome::delivered || outcome == UploadOutcome::gone) {
    batches_.erase(batch);
    return Action::forget;
  }
  if (!policy_) return Action::keep;

  if (outcome == UploadOutcome::unreachable) {
    offlineUntil_ = now + nextWait(++offlineFailures_);
    return Action::keep;  // the service never saw it: the batch's own count stays
  }
  auto& state = batches_[batch];
  if (outcome == UploadOutcome::tooLarge && policy_->splitTooLarge) return Action::split;
  if (outcome == UploadOutcome::refused || outcome == UploadOutcome::tooLarge) {
    if (++state.refusals >= std::max(policy_->refusedAfterTries, 1)) {
      batches_.erase(batch);
      return Action::setAside;
    }
  }
  auto wait = nextWait(++state.failures);
  if (retryAfter) {
    // The service's own wait, within our cap.
    const auto asked =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::min<std::chrono::seconds>(
            *retryAfter, std::chrono::duration_cast<std::chrono::seconds>(policy_->maxBackoff)));
    wait = std::min(std::max(wait, asked), policy_->maxBackoff);
  }
  state.notBefore = now + wait;
  return Action::keep;
}

bool DeliverySchedule::mayAttempt(const std::string& batch, Clock::time_point now) const {
  if (!policy_) return true;
  const auto it = batches_.find(batch);
  return it == batches_.end() || it->second.notBefore <= now;
}

bool DeliverySchedule::endsRound(UploadOutcome outcome) const noexcept {
  switch (outcome) {
    case UploadOutcome::delivered:
    case UploadOutcome::gone:
    case UploadOutcome::tooLarge:
    case UploadOutcome::refused:
      return false;
    case UploadOutcome::unreachable:
      return true;
    case UploadOutcome::retryLater:
      // With a policy each batch waits on its own and the others keep their order; without one,
      // a failing service is spared the rest until the next flush.
      return !policy_;
  }
  return true;
}

void DeliverySchedule::roundEnded(bool failed, Clock::time_point now) {
  failing_ = failed;
  if (!failed) {
    failedRounds_ = 0;
    return;
  }
  ++failedRounds_;
  lastFailure_ = now;
}

void DeliverySchedule::keepOnly(const std::deque<std::filesystem::path>& listed) {
  if (batches_.empty()) return;
  std::unordered_map<std::string, BatchState> kept;
  for (const auto& batch : listed) {
    if (auto it = batches_.find(batch.native()); it != batches_.end())
      kept.emplace(batch.native(), it->second);
  }
  batches_ = std::move(kept);
}

bool DeliverySchedule::automaticFlushAllowed(Clock::time_point now) const noexcept {
  return !(policy_ && policy_->pauseWhileOffline && unreachable_ && now < offlineUntil_);
}

DeliverySchedule::Clock::time_point DeliverySchedule::nextAttempt(
    Clock::time_point now, const std::deque<std::filesystem::path>& backlog) const {
  if (!failing_) return now;
  if (!policy_) {
    auto wait = std::chrono::duration_cast<Clock::duration>(kFirstRetry);
    for (int i = 1; i < failedRounds_ && wait < kLastRetry; ++i) wait *= 2;
    return lastFailure_ + std::min<Clock::duration>(wait, kLastRetry);
  }
  // The first batch whose wait ends.
  auto earliest = Clock::time_point::max();
  for (const auto& batch : backlog) {
    const auto it = batches_.find(batch.native());
    if (it == batches_.end() || it->second.notBefore <= now) return now;
    earliest = std::min(earliest, it->second.notBefore);
  }
  return earliest == Clock::time_point::max() ? now : earliest;
}

}  // namespace pelora
